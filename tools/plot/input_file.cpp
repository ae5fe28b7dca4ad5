#include "tools/plot/input_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

constexpr std::size_t BUFFER_SIZE = 1 << 20;
constexpr long TAIL_SIZE = 1 << 16;

[[noreturn]] void fail(const std::string& name)
{
    const int err = errno;  // before building the text can change it
    throw std::runtime_error(name + ": " + std::strerror(err));
}

}  // namespace

void InputFile::Closer::operator()(std::FILE* file) const
{
    (void)std::fclose(file);  // no written data can be lost
}

InputFile::InputFile(const std::string& name)
    : _name(name == "-" ? "standard input" : name),
      _file(name == "-" ? stdin : std::fopen(name.c_str(), "rbe"))
{
    struct stat status {};
    if (_file == nullptr || fstat(fileno(_file.get()), &status) == -1)
        fail(_name);
    if (S_ISREG(status.st_mode))
        _size = static_cast<std::uint64_t>(status.st_size);
    (void)std::setvbuf(_file.get(), nullptr, _IONBF, 0);  // this class has its own buffer
}

std::size_t InputFile::read_into(char* buffer, std::size_t size)
{
    const std::size_t got = std::fread(buffer, 1, size, _file.get());
    if (got < size && std::ferror(_file.get()) != 0)
        fail(_name);
    _bytes_read += got;
    return got;
}

bool InputFile::next(std::string_view& line)
{
    _buffer.resize(BUFFER_SIZE);
    const void* line_feed = std::memchr(&_buffer[_begin], '\n', _end - _begin);
    if (line_feed == nullptr) {
        std::memmove(_buffer.data(), &_buffer[_begin], _end - _begin);
        const std::size_t kept = std::exchange(_end, _end - _begin) - std::exchange(_begin, 0);
        _end += read_into(&_buffer[kept], BUFFER_SIZE - kept);
        line_feed = std::memchr(&_buffer[kept], '\n', _end - kept);
    }
    if (_begin == _end)
        return false;
    _cut_off = line_feed == nullptr;
    const std::size_t stop =
        _cut_off ? _end
                 : static_cast<std::size_t>(static_cast<const char*>(line_feed) - _buffer.data());
    line = std::string_view(&_buffer[_begin], stop - _begin);
    _begin = _cut_off ? stop : stop + 1;
    return true;
}

void InputFile::copy_to_temporary()
{
    File copy(std::tmpfile());
    if (copy == nullptr)
        fail("temporary file");
    std::vector<char> piece(BUFFER_SIZE);
    while (const std::size_t got = read_into(piece.data(), piece.size()))
        if (std::fwrite(piece.data(), 1, got, copy.get()) != got)
            fail("temporary file");
    _file = std::move(copy);
    _size = std::exchange(_bytes_read, 0);
}

std::string InputFile::tail()
{
    if (std::fseek(_file.get(), 0, SEEK_END) != 0)
        copy_to_temporary();
    if (std::fseek(_file.get(), -TAIL_SIZE, SEEK_END) != 0)
        std::rewind(_file.get());  // the file is shorter
    std::string bytes(TAIL_SIZE, '\0');
    bytes.resize(read_into(bytes.data(), bytes.size()));
    std::rewind(_file.get());
    _bytes_read = 0;
    return bytes;
}

void create_file(const std::string& name)
{
    std::FILE* const file = std::fopen(name.c_str(), "wbe");
    if (file == nullptr || std::fclose(file) != 0)
        fail(name);
}
