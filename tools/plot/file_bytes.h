// Whole files.
#pragma once

#include <string>

// The bytes of the file. Throws std::runtime_error, with name and reason, when it cannot be read.
std::string read_file(const std::string& name);

// Leaves an empty file of that name. Throws as read_file does.
void create_file(const std::string& name);
