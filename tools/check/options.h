// The command line of voxstat-check.
#pragma once

#include <optional>
#include <string>

struct Options {
    std::string file;
    std::optional<std::string> user;
    bool post = false;
    bool live = false;

    // What the command line asks for. Prints --help or --version and ends the process with 0; a
    // mistake is reported on standard error, and ends it with 2.
    static Options read(int argc, char** argv);
};
