// The times in the lines and records of the daemon's files. The modification time of a file is not
// reliable: a write that fails on a full disk also changes it.
#pragma once

#include <ctime>
#include <optional>
#include <string>

struct OutputFile;

// Seconds since the epoch. Nothing for texts without a time, such as further lines of a message.
// A line of the log does not contain the year: "Nov-25 03:12:05.123 ...".
std::optional<time_t> log_line_time(const std::string& line);

// The time of the last line, or of the last readable record of a dump, in the file or, if it has
// none, in the newest archive that has one.
std::optional<time_t> last_line_time(const OutputFile& file);
