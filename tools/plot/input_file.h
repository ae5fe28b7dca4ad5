// A file or pipe that is read once, line by line.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class InputFile {
public:
    // "-" is standard input. Throws std::runtime_error with name and reason, like all members.
    explicit InputFile(const std::string& name);

    const std::string& name() const { return _name; }

    // Sets the next line, without its line feed; it is valid until the next call. Returns false at
    // the end of the file. A line longer than 1 MiB, which the daemon never writes, is split.
    bool next(std::string_view& line);

    // Whether the last line of next() has no line feed.
    bool is_cut_off() const { return _cut_off; }

    // The last bytes of the file. Call it before the first next(). Copies a pipe to a temporary
    // file.
    std::string tail();

    std::uint64_t bytes_read() const { return _bytes_read; }
    std::uint64_t size() const { return _size; }  // 0 if unknown

private:
    struct Closer {
        void operator()(std::FILE* file) const;
    };
    using File = std::unique_ptr<std::FILE, Closer>;

    std::size_t read_into(char* buffer, std::size_t size);
    void copy_to_temporary();

    std::string _name;
    File _file;
    std::vector<char> _buffer;
    std::size_t _begin = 0, _end = 0;  // the unread part of the buffer
    bool _cut_off = false;
    std::uint64_t _bytes_read = 0, _size = 0;
};

// Creates the file, or empties it.
void create_file(const std::string& name);
