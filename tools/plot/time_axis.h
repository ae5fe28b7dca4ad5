// The horizontal axis of the plots: the time of day in the time zone of the file.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/plot/calls.h"
#include "tools/plot/caption.h"

class TimeAxis {
public:
    // From the earliest start to the latest end of the reports of these calls, at least one, in the
    // zone of the first call. Reports from a wrong clock must not compress all others: at an end
    // that the user has not chosen, the few reports far beyond the others are outside.
    TimeAxis(const std::vector<Call>& calls, const Caption& caption);

    bool shows(double time_s) const;

    // "TEXT; reports outside the period shown ...: 1", or only the text if there are none.
    std::string with_outside_text(const std::string& text) const;

    // A time as gnuplot must draw it: gnuplot does not know time zones.
    double place_of(double time_s) const { return time_s + _zone_offset_s; }
    double first_place() const { return _begin; }
    double middle() const { return (_begin + _end) / 2; }
    double last_place() const { return _end; }

    std::string moment_text(double time_s) const;  // "22:13:20", with the day if there are several
    std::string zone_text() const;                 // "+0000"
    std::string span_text() const;                 // "2023-Nov-14 22:13:20 to 22:18:20 +0000"

    // Range and tics, at round times, for the following plots. The tics may be without labels.
    std::string gnuplot_script(int most_tics, bool with_texts) const;

private:
    bool is_one_day() const;

    double _zone_offset_s;
    double _begin, _end;  // places
    std::size_t _outside = 0;
};

// "2023-Nov-14 22:13:20", of seconds since the epoch in the zone.
std::string date_text(double time_s, double zone_offset_s);
