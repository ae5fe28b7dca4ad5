// Reads what another program of this machine prints.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

// Runs a command, hands each line of its output to use(), without the line feed, and returns how
// many there were; 0 if the command failed. What it prints on standard error is dropped. The
// command must not contain texts from a file or a user.
std::size_t read_command(const std::string& command,
                         const std::function<void(const std::string&)>& use);
