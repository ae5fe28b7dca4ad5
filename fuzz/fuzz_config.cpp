// The configuration file. For any input, the loaded keys and values must be those that an
// independent parser in this file finds, with both separators and through all getters.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

#include "config/config_file.h"
#include "fuzz/invariant.h"

namespace {

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

// The first word of the line.
std::string first_word(const std::string& line)
{
    std::string word;
    for (const char c : line) {
        if (word.empty() && is_blank(c))
            continue;
        if (is_blank(c) || c == '=' || c == ':')
            break;
        word += c;
    }
    return word;
}

std::string trimmed(std::string text)
{
    while (!text.empty() && is_blank(text.back()))
        text.pop_back();
    while (!text.empty() && is_blank(text.front()))
        text.erase(0, 1);
    return text;
}

std::map<std::string, std::string> read_by_hand(const std::string& text, char separator)
{
    std::map<std::string, std::string> pairs;
    std::string line;
    bool comment = false;
    for (const char c : text + '\n') {
        if (c == '#')
            comment = true;
        if (c != '\n') {
            if (!comment)
                line += c;
            continue;
        }
        const std::size_t at = line.find(separator);
        const std::string value = at == std::string::npos ? "" : trimmed(line.substr(at + 1));
        if (at != 0 && !value.empty())
            pairs[first_word(line)] = value;
        line.clear();
        comment = false;
    }
    return pairs;
}

// A file in memory with the input, because the loader takes a path.
class MemoryFile {
public:
    explicit MemoryFile(const std::string& contents) : _fd(memfd_create("fuzz", 0))
    {
        expect(_fd >= 0, "a file in memory");
        expect(write(_fd, contents.data(), contents.size()) ==
                   static_cast<ssize_t>(contents.size()),
               "the file holds its contents");
    }
    ~MemoryFile() { (void)close(_fd); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(_fd); }

private:
    int _fd;
};

void check_pair(const ConfigFile& config, const std::string& key, const std::string& value)
{
    expect(config.keyExists(key), "a key that the file gives exists");
    expect_equal(value, config.getStringValue(key, "default"), "the value of a key");
    const char* const text = value.c_str();
    expect(config.getIntValue(key, -7) == static_cast<int>(std::strtol(text, nullptr, 10)),
           "the number of a key");
    const double wanted = std::strtod(text, nullptr);
    const double got = config.getFloatValue(key, -7.5);
    expect(wanted == got || (std::isnan(wanted) && std::isnan(got)), "the fraction of a key");
}

void check_separator(const std::string& text, const std::string& path, char separator)
{
    const ConfigFile config(path, separator);
    const auto pairs = read_by_hand(text, separator);
    for (const auto& [key, value] : pairs) {
        check_pair(config, key, value);
        expect(key.find_first_of(" \t=:#\n") == std::string::npos, "a key is one word");
        expect(value.find_first_of("#\n") == std::string::npos, "a value ends at a comment");
        const std::string absent = key + '=';  // no key contains a separator
        expect(!config.keyExists(absent), "only the keys of the file exist");
        expect_equal("default", config.getStringValue(absent, "default"), "the default text");
        expect(config.getIntValue(absent, INT_MIN) == INT_MIN, "the default number");
    }
    // The first word of a line is a key only if the line also has a value.
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        const std::string word = first_word(text.substr(start, end - start));
        expect(config.keyExists(word) == (pairs.count(word) == 1), "a key exists if given");
        start = end + 1;
    }
}

// The helpers for lines accept a line exactly as the file contains it.
void check_helpers(const ConfigFile& config, const std::string& text)
{
    std::string line = text.substr(0, text.find('\n'));
    const bool blank = config.onlyWhitespace(line);
    expect(blank == (line.find_first_not_of(' ') == std::string::npos), "a line of spaces");
    if (config.validLine(line))
        expect(!blank && !line.empty() && line[0] != '=' && !is_blank(line[0]) &&
                   line.find('=') != std::string::npos,
               "a valid line has a key and an equals sign");
    config.removeComment(line);
    expect(line.find('#') == std::string::npos, "no comment is left");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const MemoryFile file(text);
    check_separator(text, file.path(), '=');
    check_separator(text, file.path(), ':');
    check_helpers(ConfigFile(file.path(), '='), text);
    return 0;
}
