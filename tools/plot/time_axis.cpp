#include "tools/plot/time_axis.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <sstream>

namespace {

constexpr int MOST_TICS = 10;
constexpr double MARGIN = 0.01;  // on both sides, as a part of the span
constexpr double MINUTE = 60, HOUR = 60 * MINUTE, DAY = 24 * HOUR;
constexpr double TIC_STEPS[] = {
    1,          2,          5,           10,          15,          30,      MINUTE,
    2 * MINUTE, 5 * MINUTE, 10 * MINUTE, 15 * MINUTE, 30 * MINUTE, HOUR,    2 * HOUR,
    3 * HOUR,   6 * HOUR,   12 * HOUR,   DAY,         2 * DAY,     7 * DAY, 30 * DAY};

double step_for(double span)
{
    const auto* const step = std::find_if(std::begin(TIC_STEPS), std::end(TIC_STEPS),
                                          [span](double each) { return span / each <= MOST_TICS; });
    return step != std::end(TIC_STEPS) ? *step : std::ceil(span / MOST_TICS / DAY) * DAY;
}

const char* format_for(double step)
{
    if (step < MINUTE)
        return "%H:%M:%S";
    return step < DAY ? "%H:%M" : "%b-%d";
}

}  // namespace

TimeAxis::TimeAxis(const StatisticsLine& line, double begin_s, double end_s)
    : _zone_offset_s(static_cast<double>(line.zone_offset_s)), _begin(place_of(begin_s)),
      _end(place_of(end_s))
{
}

std::string TimeAxis::text_of(double place, const char* format) const
{
    const auto seconds = static_cast<std::time_t>(place);
    std::tm calendar{};
    gmtime_r(&seconds, &calendar);
    char text[64];
    return {text, std::strftime(text, sizeof text, format, &calendar)};
}

std::string TimeAxis::clock_text(double time_s) const
{
    return text_of(place_of(time_s), "%H:%M:%S");
}

std::string TimeAxis::span_text() const
{
    const bool one_day = std::floor(_begin / DAY) == std::floor(_end / DAY);
    const long zone_minutes = std::labs(std::lround(_zone_offset_s / MINUTE));
    std::ostringstream text;
    text << text_of(_begin, "%Y-%b-%d %H:%M:%S to ")
         << text_of(_end, one_day ? "%H:%M:%S " : "%Y-%b-%d %H:%M:%S ")
         << (_zone_offset_s < 0 ? '-' : '+') << std::setfill('0') << std::setw(2)
         << zone_minutes / 60 << std::setw(2) << zone_minutes % 60;
    return text.str();
}

std::string TimeAxis::gnuplot_script() const
{
    const double margin = std::fmax(0.5, (_end - _begin) * MARGIN);
    const double begin = _begin - margin;
    const double end = _end + margin;
    const double step = step_for(end - begin);
    std::ostringstream script;
    script << std::fixed << std::setprecision(3) << "set xrange [" << begin << ":" << end
           << "]\nset xtics time format '" << format_for(step) << "' "
           << std::ceil(begin / step) * step << "," << step << "\n";
    return script.str();
}
