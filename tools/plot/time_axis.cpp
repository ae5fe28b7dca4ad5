#include "tools/plot/time_axis.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <limits>
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

struct Period {
    double begin_s, end_s;
};

bool begins_earlier(const Period& a, const Period& b)
{
    return a.begin_s < b.begin_s;
}

bool ends_earlier(const Period& a, const Period& b)
{
    return a.end_s < b.end_s;
}

std::vector<Period> periods_of(const std::vector<Call>& calls)
{
    std::vector<Period> periods;
    for (const Call& call : calls) {
        for (const auto* samples : {&call.near_samples, &call.far_samples})
            for (const Sample& sample : *samples)
                periods.push_back({sample.time_s, sample.time_s});
        for (const Stream& stream : call.streams)
            periods.push_back({stream.begin_s, stream.end_s});
    }
    return periods;
}

// The period of all reports except the earliest and the latest hundredth, at least one of each,
// extended on both sides by three times its length, at least a week. Reorders the periods.
Period usual_period(std::vector<Period>& periods)
{
    constexpr double LEAST_ROOM = 7 * DAY;
    const std::size_t few = std::max<std::size_t>(1, periods.size() / 100);
    if (periods.size() < 2 * few + 1)  // of two, either may be wrong
        return {-std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity()};
    const auto early = periods.begin() + static_cast<std::ptrdiff_t>(few);
    std::nth_element(periods.begin(), early, periods.end(), begins_earlier);
    const double begin_s = early->begin_s;
    const auto late = periods.end() - static_cast<std::ptrdiff_t>(few) - 1;
    std::nth_element(periods.begin(), late, periods.end(), ends_earlier);
    const double end_s = late->end_s;
    const double room_s = std::max(LEAST_ROOM, 3 * (end_s - begin_s));
    return {begin_s - room_s, end_s + room_s};
}

}  // namespace

TimeAxis::TimeAxis(const std::vector<Call>& calls, const Caption& caption)
    : _zone_offset_s(static_cast<double>(calls.front().zone_offset_s))
{
    std::vector<Period> periods = periods_of(calls);
    const Period usual = usual_period(periods);
    const auto is_outside = [&](const Period& each) {
        return (!caption.begin_chosen && each.begin_s < usual.begin_s) ||
               (!caption.end_chosen && each.end_s > usual.end_s);
    };
    _outside = std::erase_if(periods, is_outside);
    _begin = place_of(std::min_element(periods.begin(), periods.end(), begins_earlier)->begin_s);
    _end = place_of(std::max_element(periods.begin(), periods.end(), ends_earlier)->end_s);
}

bool TimeAxis::shows(double time_s) const
{
    return _begin <= place_of(time_s) && place_of(time_s) <= _end;
}

std::string TimeAxis::with_outside_text(const std::string& text) const
{
    if (_outside == 0)
        return text;
    return text + (text.empty() ? "" : "; ") +
           "reports outside the period shown (see --from and --to): " + std::to_string(_outside);
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
    const double left = _begin - margin;
    const double right = _end + margin;
    const double step = step_for(right - left, most_tics);
    std::string format = step < MINUTE ? "%H:%M:%S" : "%H:%M";
    if (step >= DAY)
        format = "%Y-%b-%d";
    else if (!is_one_day())
        format += "\\n%Y-%b-%d";
    std::ostringstream script;
    script << std::fixed << std::setprecision(3) << "set xrange [" << left << ":" << right
           << "]\nset xtics time format \"" << (with_texts ? format : "") << "\" "
           << std::ceil(left / step) * step << "," << step << "\n";
    return script.str();
}

std::string date_text(double time_s, double zone_offset_s)
{
    return text_of(time_s + zone_offset_s, "%Y-%b-%d %H:%M:%S");
}
