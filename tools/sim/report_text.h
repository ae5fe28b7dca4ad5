// The text of a report: KEY=VALUE lines.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class ReportText {
public:
    // Pass the key without its prefix, "QOS_EV_".
    void add(std::string_view key, std::string_view value);
    void add(std::string_view key, std::int64_t value);
    void add_decimal(std::string_view key, double value);  // one decimal place
    // Adds two keys, with the suffixes "_SEC" and "_USEC".
    void add_time(std::string_view key, std::chrono::system_clock::time_point time);

    // Adds leading zeros to the last number until the text has this size.
    void pad_last_number(std::size_t size);

    std::string_view text() const { return _text; }

private:
    std::string _text;
    std::size_t _last_value = 0;  // its offset
};
