// Times in the formats of the statistics files and the command line.
#pragma once

#include <optional>
#include <string_view>

// "2023-Nov-14 22:13:20.123 +0000"
constexpr std::size_t STAMP_SIZE = 30;

struct Stamp {
    double time_s;       // since the epoch
    long zone_offset_s;  // of its time zone
};

// The time stamp at the start of the text.
std::optional<Stamp> read_stamp(std::string_view text);

// Seconds since midnight, from a text that starts like "22:13:20".
std::optional<double> read_clock(std::string_view text);

// Seconds since midnight of a time of day: "22:13" or "22:13:20".
std::optional<double> read_time_of_day(std::string_view text);

// A day, with or without a time of day: "2023-11-14", "2023-Nov-14 22:13", "2023-11-14 22:13:20".
// Seconds since the epoch, as if the text were UTC.
std::optional<double> read_day_and_time(std::string_view text);
