#include "tools/plot/time_axis.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <sstream>

namespace {

constexpr double MARGIN = 0.01;  // on both sides, as a part of the span
constexpr double MINUTE = 60, HOUR = 60 * MINUTE, DAY = 24 * HOUR;
constexpr double TIC_STEPS[] = {
    1,          2,          5,           10,          15,          30,      MINUTE,
    2 * MINUTE, 5 * MINUTE, 10 * MINUTE, 15 * MINUTE, 30 * MINUTE, HOUR,    2 * HOUR,
    3 * HOUR,   6 * HOUR,   12 * HOUR,   DAY,         2 * DAY,     7 * DAY, 30 * DAY};

double step_for(double span, int most_tics)
{
    const auto* const step = std::find_if(std::begin(TIC_STEPS), std::end(TIC_STEPS),
                                          [=](double each) { return span / each <= most_tics; });
    return step != std::end(TIC_STEPS) ? *step : std::ceil(span / most_tics / DAY) * DAY;
}

std::string text_of(double place, const char* format)
{
    const auto seconds = static_cast<std::time_t>(std::floor(place));
    std::tm calendar{};
    gmtime_r(&seconds, &calendar);
    char text[64];
    return {text, std::strftime(text, sizeof text, format, &calendar)};
}

}  // namespace

TimeAxis::TimeAxis(const std::vector<Call>& calls)
    : _zone_offset_s(static_cast<double>(calls.front().any_report().zone_offset_s)),
      _begin(place_of(calls.front().any_report().begin_s)), _end(_begin)
{
    for (const Call& call : calls)
        for (const StatisticsLine* report : call.reports()) {
            _begin = std::min(_begin, place_of(report->begin_s));
            _end = std::max({_end, place_of(report->time_s), place_of(report->end_s)});
        }
}

bool TimeAxis::is_one_day() const
{
    return std::floor(_begin / DAY) == std::floor(_end / DAY);
}

std::string TimeAxis::moment_text(double time_s) const
{
    return text_of(place_of(time_s), is_one_day() ? "%H:%M:%S" : "%Y-%b-%d %H:%M:%S");
}

std::string TimeAxis::zone_text() const
{
    const long minutes = std::labs(std::lround(_zone_offset_s / MINUTE));
    std::ostringstream text;
    text << (_zone_offset_s < 0 ? '-' : '+') << std::setfill('0') << std::setw(2) << minutes / 60
         << std::setw(2) << minutes % 60;
    return text.str();
}

std::string TimeAxis::span_text() const
{
    return text_of(_begin, "%Y-%b-%d %H:%M:%S to ") +
           text_of(_end, is_one_day() ? "%H:%M:%S " : "%Y-%b-%d %H:%M:%S ") + zone_text();
}

std::string TimeAxis::gnuplot_script(int most_tics, bool with_texts) const
{
    const double margin = std::fmax(0.5, (_end - _begin) * MARGIN);
    const double begin = _begin - margin;
    const double end = _end + margin;
    const double step = step_for(end - begin, most_tics);
    std::string format = step < MINUTE ? "%H:%M:%S" : "%H:%M";
    if (step >= DAY)
        format = "%Y-%b-%d";
    else if (!is_one_day())
        format += "\\n%Y-%b-%d";
    std::ostringstream script;
    script << std::fixed << std::setprecision(3) << "set xrange [" << begin << ":" << end
           << "]\nset xtics time format \"" << (with_texts ? format : "") << "\" "
           << std::ceil(begin / step) * step << "," << step << "\n";
    return script.str();
}

std::string date_text(double time_s, double zone_offset_s)
{
    return text_of(time_s + zone_offset_s, "%Y-%b-%d %H:%M:%S");
}
