// A process of this machine, as /proc shows it.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

class Process {
public:
    explicit Process(pid_t id) : _id(id) {}

    // Those that this process may see.
    static std::vector<Process> all();

    pid_t id() const { return _id; }
    std::string name() const;
    bool is_daemon() const;

    uid_t user() const;
    time_t started() const;  // seconds since the epoch

    // What its descriptors lead to: paths, and texts like "socket:[4711]". Empty without the right
    // to look.
    std::vector<std::string> open_files() const;

    // Its environment, as NAME=VALUE; empty without the right to look.
    std::vector<std::string> environment() const;

    // What it has as standard output; empty without the right to look.
    std::string standard_output() const;

private:
    std::string read(const std::string& file) const;

    pid_t _id;
};
