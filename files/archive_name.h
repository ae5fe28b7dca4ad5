// The names of archives: how the rotation forms them, and how the cleanup recognises them.
//
//   name_2026-03-03_14-05-09.txt      named after the local time of its rotation
//   name_2026-03-03_14-05-09_002.txt  the second archive of the same second
//
// Any thread.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

// The name of an archive of the file name + extension that is rotated now, as the number-th of this
// second, from 1. Names sort in the order of rotation.
std::string archive_name(const std::string& name, const std::string& extension, time_t now,
                         unsigned number);

// True when a regular file of this name is an archive of the file name + extension: the cleanup
// counts it, and may remove it. Does not match other files whose names begin with the same text.
// The names have no directory.
bool is_archive_name(std::string_view file, std::string_view name, std::string_view extension);
