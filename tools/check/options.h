// The command line of voxstat-check.
#pragma once

#include <optional>
#include <string>

enum class Format { TEXT, JSON, PROMETHEUS, NAGIOS };

struct Options {
    std::string file;
    std::optional<std::string> user;
    bool post = false;
    bool live = false;
    Format format = Format::TEXT;
    std::optional<long> since;         // seconds; without it, losses since the start count
    std::optional<std::string> state;  // file that remembers what the queues have dropped

    // What the command line asks for. Prints --help or --version and exits with 0; a mistake is
    // reported on standard error. It exits with 2 then, or with 3 after --nagios.
    static Options read(int argc, char** argv);
};
