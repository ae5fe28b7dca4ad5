#include "tools/plot/time_text.h"

#include <ctime>
#include <string>

#include "tools/common/numbers.h"

namespace {

// How many characters of the text match the strptime format; nothing if it does not match.
std::optional<std::size_t> read_form(const std::string& text, const char* form, std::tm& calendar)
{
    const char* const end = strptime(text.c_str(), form, &calendar);
    if (end == nullptr)
        return std::nullopt;
    return end - text.c_str();
}

}  // namespace

std::optional<Stamp> read_stamp(std::string_view text)
{
    constexpr std::size_t POINT = 20, ZONE = 24;

    const std::string stamp(text.substr(0, STAMP_SIZE));
    std::tm calendar{};
    int milliseconds = 0;
    if (stamp.size() != STAMP_SIZE || stamp[POINT] != '.' ||
        read_form(stamp, "%Y-%b-%d %H:%M:%S", calendar) != POINT ||
        !to_number(text.substr(POINT + 1, 3), milliseconds, 0))
        return std::nullopt;
    std::tm zone{};
    if (read_form(stamp.substr(ZONE), " %z", zone) != STAMP_SIZE - ZONE)
        return std::nullopt;
    const long offset_s = zone.tm_gmtoff;
    return Stamp{static_cast<double>(timegm(&calendar) - offset_s) + milliseconds / 1000.0,
                 offset_s};
}

std::optional<double> read_clock(std::string_view text)
{
    std::tm calendar{};
    if (!read_form(std::string(text), "%H:%M:%S", calendar))
        return std::nullopt;
    return (calendar.tm_hour * 60 + calendar.tm_min) * 60 + calendar.tm_sec;
}

std::optional<double> read_time_of_day(std::string_view text)
{
    const std::string whole(text);
    for (const char* form : {"%H:%M", "%H:%M:%S"}) {
        std::tm calendar{};
        if (read_form(whole, form, calendar) == whole.size())
            return read_clock(whole + (form[5] == '\0' ? ":00" : ""));
    }
    return std::nullopt;
}

std::optional<double> read_day_and_time(std::string_view text)
{
    const std::string whole(text);
    // %b is the name of a month, %m its number; omitted parts are 0.
    for (const char* form : {"%Y-%b-%d", "%Y-%m-%d", "%Y-%b-%d %H:%M", "%Y-%m-%d %H:%M",
                             "%Y-%b-%d %H:%M:%S", "%Y-%m-%d %H:%M:%S"}) {
        std::tm calendar{};
        if (read_form(whole, form, calendar) == whole.size())
            return static_cast<double>(timegm(&calendar));
    }
    return std::nullopt;
}
