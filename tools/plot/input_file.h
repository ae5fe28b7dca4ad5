// A file that is read line by line, once, and pipes too.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class InputFile {
public:
    // "-" is standard input. Throws std::runtime_error, with name and reason, as all here do.
    explicit InputFile(const std::string& name);

    const std::string& name() const { return _name; }

    // The next line, without its line feed, until the next call. False at the end of the file. Of a
    // line beyond a MiB, which is not the daemon's, each MiB is a line.
    bool next(std::string_view& line);

    // Whether the line that next() gave last has no line feed.
    bool is_cut_off() const { return _cut_off; }

    // The last bytes of the file, of which nothing may have been read yet. A pipe is copied into a
    // temporary file for that.
    std::string tail();

    std::uint64_t bytes_read() const { return _bytes_read; }
    std::uint64_t size() const { return _size; }  // 0 if it is not known

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
    std::size_t _begin = 0, _end = 0;  // of what is in the buffer and was not given yet
    bool _cut_off = false;
    std::uint64_t _bytes_read = 0, _size = 0;
};

// Leaves an empty file of that name.
void create_file(const std::string& name);
