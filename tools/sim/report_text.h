// The text of one QoS report: KEY=VALUE lines.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class ReportText {
public:
    // The key goes without its common beginning, "QOS_EV_".
    void add(std::string_view key, std::string_view value);
    void add(std::string_view key, std::int64_t value);
    void add_decimal(std::string_view key, double value);  // one place behind the point
    // The keys that begin so and end in "_SEC" and "_USEC".
    void add_time(std::string_view key, std::chrono::system_clock::time_point time);

    // Inserts leading zeros into the number that was added last until the text has this size.
    void pad_last_number(std::size_t size);

    std::string_view text() const { return _text; }

private:
    std::string _text;
    std::size_t _last_value = 0;  // where it begins
};
