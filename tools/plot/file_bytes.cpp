#include "tools/plot/file_bytes.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace {

[[noreturn]] void fail(const std::string& name)
{
    const int err = errno;  // before the text can change it
    throw std::runtime_error(name + ": " + std::strerror(err));
}

struct FileCloser {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }  // nothing was written
};

}  // namespace

std::string read_file(const std::string& name)
{
    constexpr std::size_t PIECE = 1 << 16;
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(name.c_str(), "rbe"));
    if (file == nullptr)
        fail(name);
    std::string bytes;
    std::size_t got = PIECE;
    while (got == PIECE) {
        const std::size_t length = bytes.size();
        bytes.resize(length + PIECE);
        got = std::fread(bytes.data() + length, 1, PIECE, file.get());
        bytes.resize(length + got);
    }
    if (std::ferror(file.get()) != 0)
        fail(name);
    return bytes;
}

void create_file(const std::string& name)
{
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(name.c_str(), "wbe"));
    if (file == nullptr)
        fail(name);
}
