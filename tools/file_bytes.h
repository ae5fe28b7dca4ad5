// Whole files in memory.
#pragma once

#include <string>

// Throws std::runtime_error, with the reason, when the file cannot be read.
std::string read_file(const std::string& name);
