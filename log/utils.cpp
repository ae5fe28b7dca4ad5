#include "log/utils.h"

#include <cstdio>

namespace {

constexpr std::size_t TEXT_LIMIT = std::tuple_size_v<Utils::Stamp> - 1;
constexpr long long USEC_PER_MSEC = 1000;

// Date or time by the pattern, then milliseconds and a space. Returns the length of the text.
std::size_t print_stamp(Utils::Stamp& buffer, const timeval& tv, const tm& fields,
                        const char* pattern)
{
    const std::size_t length = strftime(buffer.data(), TEXT_LIMIT, pattern, &fields);
    const int printed = std::sprintf(buffer.data() + length, ".%.3lld ",
                                     static_cast<long long>(tv.tv_usec) / USEC_PER_MSEC);
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

std::string_view Utils::t_stamp(Stamp& buffer)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return t_stamp(now, false, buffer);
}

std::string_view Utils::t_stamp(const timeval& tv, bool time_only, Stamp& buffer)
{
    const char* pattern = time_only ? "%H:%M:%S" : "%b-%d %H:%M:%S";
    return {buffer.data(), print_stamp(buffer, tv, local_time(tv.tv_sec), pattern)};
}

std::string_view Utils::t_stamp_tz(const timeval& tv, Stamp& buffer)
{
    const tm fields = local_time(tv.tv_sec);
    std::size_t length = print_stamp(buffer, tv, fields, "%Y-%b-%d %H:%M:%S");
    length += strftime(buffer.data() + length, TEXT_LIMIT - length, "%z", &fields);
    return {buffer.data(), length};
}

std::string Utils::t_stamp()
{
    Stamp buffer;
    return std::string(t_stamp(buffer));
}

std::string Utils::t_stamp(const timeval& tv, bool time_only)
{
    Stamp buffer;
    return std::string(t_stamp(tv, time_only, buffer));
}

std::string Utils::t_stamp_tz(const timeval& tv)
{
    Stamp buffer;
    return std::string(t_stamp_tz(tv, buffer));
}
