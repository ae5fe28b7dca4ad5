// One of the files that the daemon writes, with its archives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class Settings;

struct OutputFile {
    std::string directory;  // ends in '/'
    std::string name;
    std::string extension;
    unsigned max_size;  // bytes
    unsigned max_archives;
    std::size_t line;  // of the configuration, where its directory comes from

    std::string path() const { return directory + name + extension; }

    // The archives that are there now, as paths.
    std::vector<std::string> archives() const;

    // Bytes that the file and its archives may still take, until the oldest archive goes.
    std::uint64_t growth() const;
};

// The files that the daemon writes with these settings; the log last, if it has one.
std::vector<OutputFile> output_files(const Settings& settings);
