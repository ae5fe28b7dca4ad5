// The form of the time stamp that every line of the statistics files begins with.
#pragma once

#include <string_view>

// "2023-Nov-14 22:13:20.123 +0000"
constexpr std::size_t TIME_SIZE = 30;

bool begins_with_time(std::string_view text);
