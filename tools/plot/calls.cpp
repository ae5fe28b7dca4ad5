#include "tools/plot/calls.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <utility>

Call::Reports Call::reports() const
{
    Reports all = near_end;
    all.insert(all.end(), far_end.begin(), far_end.end());
    return all;
}

const StatisticsLine& Call::any_report() const
{
    return near_end.empty() ? *far_end.front() : *near_end.front();
}

std::vector<Call> worst_first(const std::vector<StatisticsLine>& lines,
                              const Thresholds& thresholds)
{
    std::map<std::pair<std::string, std::string>, Call> by_name;
    for (const StatisticsLine& line : lines) {
        Call& call = by_name[{line.gcid, line.tid}];
        (line.near_end ? call.near_end : call.far_end).push_back(&line);
        call.quality.take(line);
    }
    const auto earlier = [](const auto* a, const auto* b) { return a->time_s < b->time_s; };
    std::vector<Call> calls;
    for (auto& [name, call] : by_name) {
        std::stable_sort(call.near_end.begin(), call.near_end.end(), earlier);
        std::stable_sort(call.far_end.begin(), call.far_end.end(), earlier);
        call.severity = call.quality.severity(thresholds);
        calls.push_back(std::move(call));
    }
    std::stable_sort(calls.begin(), calls.end(),
                     [](const Call& a, const Call& b) { return a.severity > b.severity; });
    return calls;
}

std::string figure(double value, int decimals)
{
    constexpr double HUGE_FIGURE = 100000;
    char text[32];
    const int length = std::fabs(value) < HUGE_FIGURE
                           ? std::snprintf(text, sizeof text, "%.*f", decimals, value)
                           : std::snprintf(text, sizeof text, "%.0e", value);
    return {text, static_cast<std::size_t>(length)};
}

std::string bad_calls_text(const std::vector<Call>& calls, const Thresholds& thresholds,
                           const std::string& unit)
{
    const auto bad = std::count_if(calls.begin(), calls.end(), [](auto& c) { return c.is_bad(); });
    char text[200];
    const int length = std::snprintf(
        text, sizeof text,
        "bad calls: %td of %zu (loss %g %%, jitter %g%s or round trip %g%s and above)", bad,
        calls.size(), thresholds.loss_percent, thresholds.jitter, unit.c_str(),
        thresholds.round_trip, unit.c_str());
    return {text, static_cast<std::size_t>(length)};
}
