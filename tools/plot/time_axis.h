// The horizontal axis of the plots: the time of day in the zone that the file is written in.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/plot/calls.h"
#include "tools/plot/caption.h"

class TimeAxis {
public:
    // From the first begin to the last end of the reports of these calls, one at least; the zone is
    // that of the first call. A clock that was wrong must not squeeze all others: where the caption
    // does not say that the user chose the end of the axis, the few reports that are far beyond the
    // others are outside.
    TimeAxis(const std::vector<Call>& calls, const Caption& caption);

    bool shows(double time_s) const;

    // "TEXT; reports outside the time shown: 1", or the text alone if there are none.
    std::string with_outside_text(const std::string& text) const;

    // A point of time as gnuplot is to draw it: its clock knows no zones.
    double place_of(double time_s) const { return time_s + _zone_offset_s; }
    double first_place() const { return _begin; }
    double middle() const { return (_begin + _end) / 2; }
    double last_place() const { return _end; }

    std::string moment_text(double time_s) const;  // "22:13:20", with its day if there are several
    std::string zone_text() const;                 // "+0000"
    std::string span_text() const;                 // "2023-Nov-14 22:13:20 to 22:18:20 +0000"

    // Range and tics, at round times, for the plots that follow. Without texts the tics are bare.
    std::string gnuplot_script(int most_tics, bool with_texts) const;

private:
    bool is_one_day() const;

    double _zone_offset_s;
    double _begin, _end;  // places
    std::size_t _outside = 0;
};

// "2023-Nov-14 22:13:20", of seconds since the epoch in the zone.
std::string date_text(double time_s, double zone_offset_s);
