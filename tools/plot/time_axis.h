// The horizontal axis of the plots: the time of day in the zone that the file is written in.
#pragma once

#include <string>

#include "tools/plot/statistics_line.h"

class TimeAxis {
public:
    // The zone is that of the line; begin and end are seconds since the epoch.
    TimeAxis(const StatisticsLine& line, double begin_s, double end_s);

    // A point of time as gnuplot is to draw it: its clock knows no zones.
    double place_of(double time_s) const { return time_s + _zone_offset_s; }
    double middle() const { return (_begin + _end) / 2; }

    std::string clock_text(double time_s) const;  // "22:13:20"
    std::string span_text() const;                // "2023-Nov-14 22:13:20 to 22:18:20 +0000"

    // Range and tics, at round times.
    std::string gnuplot_script() const;

private:
    std::string text_of(double place, const char* format) const;

    double _zone_offset_s;
    double _begin, _end;  // places
};
