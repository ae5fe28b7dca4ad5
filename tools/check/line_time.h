// When the lines and records of the daemon's files were made, as they say themselves. The time at
// which a file changed tells less: a write that fails on a full disk moves it too.
#pragma once

#include <ctime>
#include <optional>
#include <string>

struct OutputFile;

// Seconds since the epoch. Nothing for texts without a time, such as further lines of a message.
// A line of the log names no year: "Nov-25 03:12:05.123 ...".
std::optional<time_t> log_line_time(const std::string& line);

// The time of the last line, or of the last record of a dump that can be reached, in the file or
// else in its newest archive.
std::optional<time_t> last_line_time(const OutputFile& file);
