#include "tools/sim/report_text.h"

#include <cstdio>

void ReportText::add(std::string_view key, std::string_view value)
{
    if (!_text.empty())
        _text += '\n';
    _text += "QOS_EV_";
    _text += key;
    _text += '=';
    _last_value = _text.size();
    _text += value;
}

void ReportText::add(std::string_view key, std::int64_t value)
{
    add(key, std::to_string(value));
}

void ReportText::add_decimal(std::string_view key, double value)
{
    char digits[32];
    const int length = std::snprintf(digits, sizeof digits, "%.1f", value);
    add(key, std::string_view(digits, static_cast<std::size_t>(length)));
}

void ReportText::add_time(std::string_view key, std::chrono::system_clock::time_point time)
{
    constexpr long MICROSECONDS = 1000000;
    const std::int64_t since_epoch =
        std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
    std::string full_key(key);
    add(full_key + "_SEC", since_epoch / MICROSECONDS);
    add(full_key + "_USEC", since_epoch % MICROSECONDS);
}

void ReportText::pad_last_number(std::size_t size)
{
    if (_text.size() < size)
        _text.insert(_last_value, size - _text.size(), '0');
}
