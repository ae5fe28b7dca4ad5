#include "log/utils.h"

#include <cstdio>

namespace {

constexpr std::size_t BUFFER_SIZE = 128;
constexpr std::size_t TEXT_LIMIT = BUFFER_SIZE - 1;
constexpr long USEC_PER_MSEC = 1000;

// Date or time by the pattern, then milliseconds and a blank. Returns the length of the text.
std::size_t print_stamp(char* buffer, const timeval& tv, const tm& fields, const char* pattern)
{
    std::size_t length = strftime(buffer, TEXT_LIMIT, pattern, &fields);
    const int printed =
        std::sprintf(buffer + length, ".%.3ld ", static_cast<long>(tv.tv_usec) / USEC_PER_MSEC);
    return printed < 0 ? length : length + static_cast<std::size_t>(printed);
}

}  // namespace

tm Utils::local_time(time_t seconds)
{
    tm fields{};
    if (localtime_r(&seconds, &fields) == nullptr) {  // the C library leaves the fields unset then
        const time_t epoch = 0;
        localtime_r(&epoch, &fields);
    }
    return fields;
}

std::string Utils::t_stamp()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return t_stamp(now, false);
}

std::string Utils::t_stamp(const timeval& tv, bool time_only)
{
    char buffer[BUFFER_SIZE];
    const char* pattern = time_only ? "%H:%M:%S" : "%b-%d %H:%M:%S";
    const std::size_t length = print_stamp(buffer, tv, local_time(tv.tv_sec), pattern);
    return {buffer, length};
}

std::string Utils::t_stamp_tz(const timeval& tv)
{
    char buffer[BUFFER_SIZE];
    const tm fields = local_time(tv.tv_sec);
    std::size_t length = print_stamp(buffer, tv, fields, "%Y-%b-%d %H:%M:%S");
    length += strftime(buffer + length, TEXT_LIMIT - length, "%z", &fields);
    return {buffer, length};
}
