// The time-stamp texts of the log and of the statistics lines: local time with milliseconds.
//
// No state; any thread. The forms that return a string are public names and stay without a caller.
#pragma once

#include <sys/time.h>

#include <array>
#include <ctime>
#include <string>
#include <string_view>

class Utils {
public:
    // Room for any of the texts and the zero byte after it.
    using Stamp = std::array<char, 128>;

    // Local calendar time. A time outside the calendar's range gives that of the epoch.
    static tm local_time(time_t seconds);

    // The current time as t_stamp(now, false), for example "Nov-14 22:13:20.123 ".
    static std::string t_stamp();
    static std::string_view t_stamp(Stamp& buffer);

    // "Nov-14 22:13:20.123 ", or "22:13:20.123 " when time_only. Ends with a space.
    // Microseconds outside 0..999999 are not corrected, only divided by 1000.
    static std::string t_stamp(const timeval& tv, bool time_only);

    // "2023-Nov-14 22:13:20.123 +0000": 30 characters for a four-digit year.
    static std::string t_stamp_tz(const timeval& tv);

    // The same texts, zero-terminated, in the caller's buffer; no allocation.
    static std::string_view t_stamp(const timeval& tv, bool time_only, Stamp& buffer);
    static std::string_view t_stamp_tz(const timeval& tv, Stamp& buffer);
};
