// Parses numbers.
#pragma once

#include <charconv>
#include <limits>
#include <string_view>
#include <system_error>

// Stores the number if the whole text is a number in the range. Infinity and NaN are never in it.
template <typename Number>
bool to_number(std::string_view text, Number& number,
               Number least = std::numeric_limits<Number>::lowest(),
               Number most = std::numeric_limits<Number>::max())
{
    Number value{};
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || !(value >= least && value <= most))
        return false;
    number = value;
    return true;
}
