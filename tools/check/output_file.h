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
    std::size_t line;  // of the configuration that sets its directory

    std::string path() const { return directory + name + extension; }

    // The paths of the existing archives.
    std::vector<std::string> archives() const;

    // Bytes by which the file and its archives may still grow before the oldest archive is deleted.
    std::uint64_t growth() const;
};

// The files that the daemon writes with these settings. The log, if it is a file, comes last.
std::vector<OutputFile> output_files(const Settings& settings);
