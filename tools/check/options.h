// The command line of voxstat-check.
#pragma once

#include <ctime>
#include <optional>
#include <string>

enum class Format { TEXT, JSON, PROMETHEUS, NAGIOS };

struct Options {
    std::string file;
    std::optional<std::string> user;
    bool post = false;
    bool live = false;
    Format format = Format::TEXT;
    std::optional<time_t> since;       // seconds; without it, losses since the start count
    std::optional<std::string> state;  // file that records what the queues have dropped

    // Parses the command line. --help and --version print their text and exit with 0. A mistake is
    // printed to standard error, and the program exits with 2, or with 3 after --nagios.
    static Options read(int argc, char** argv);
};
