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

    // The processes that this process may see.
    static std::vector<Process> all();

    pid_t id() const { return _id; }
    std::string name() const;
    bool is_daemon() const;

    uid_t user() const;
    time_t started() const;  // seconds since the epoch

    // The targets of its descriptors: paths, and texts like "socket:[4711]". Empty without
    // permission.
    std::vector<std::string> open_files() const;
    // Whether it has this file open, even if it sees the file under another path.
    bool has_open(const std::string& path) const;

    // Its environment, as NAME=VALUE; empty without permission.
    std::vector<std::string> environment() const;

    // The target of its standard output; empty without permission.
    std::string standard_output() const;

private:
    std::string read(const std::string& file) const;

    pid_t _id;
};
