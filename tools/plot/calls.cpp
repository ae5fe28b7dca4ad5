#include "tools/plot/calls.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <tuple>
#include <utility>

#include "tools/plot/printable.h"

namespace {

Call first_seen(const StatisticsLine& line)
{
    Call call;
    call.gcid = printable(line.gcid);
    call.tid = printable(line.tid);
    call.far_end = printable(line.far_end);
    call.begin_s = line.begin_s;
    call.end_s = std::max(line.time_s, line.end_s);
    call.zone_offset_s = line.zone_offset_s;
    return call;
}

void keep_report(Call& call, const StatisticsLine& line, double rating)
{
    const Figures& figures = line.figures;
    if (line.kind == StatisticsKind::SUMMARY) {
        Quality quality;
        quality.take(figures, rating);
        call.streams.push_back(
            {line.near_end, line.begin_s, line.end_s, printable(line.far_end), figures, quality});
        return;
    }
    (line.near_end ? call.near_samples : call.far_samples)
        .push_back({line.time_s, static_cast<float>(figures.loss_percent),
                    static_cast<float>(figures.jitter), static_cast<float>(figures.round_trip),
                    static_cast<float>(rating)});
}

}  // namespace

void CallBook::take(const StatisticsLine& line, double rating)
{
    auto found = _by_name.find(line.call);
    if (found == _by_name.end())
        found = _by_name.emplace(line.call, first_seen(line)).first;
    Call& call = found->second;
    if (line.begin_s < call.begin_s) {
        call.begin_s = line.begin_s;
        call.zone_offset_s = line.zone_offset_s;
    }
    call.end_s = std::max({call.end_s, line.time_s, line.end_s});
    call.quality.take(line.figures, rating);
    if (_with_reports)
        keep_report(call, line, rating);
    _reports++;
}

std::vector<Call> CallBook::worst_first(const Thresholds& thresholds)
{
    const auto earlier = [](const Sample& a, const Sample& b) { return a.time_s < b.time_s; };
    std::vector<Call> calls;
    calls.reserve(_by_name.size());
    for (auto& [name, call] : _by_name) {
        std::stable_sort(call.near_samples.begin(), call.near_samples.end(), earlier);
        std::stable_sort(call.far_samples.begin(), call.far_samples.end(), earlier);
        std::stable_sort(call.streams.begin(), call.streams.end(), [](auto& a, auto& b) {
            return std::tuple(!a.near_end, a.end_s) < std::tuple(!b.near_end, b.end_s);
        });
        call.severity = call.quality.severity(thresholds);
        calls.push_back(std::move(call));
    }
    _by_name.clear();
    std::sort(calls.begin(), calls.end(), [](const Call& a, const Call& b) {
        return std::tie(b.severity, a.gcid, a.tid) < std::tie(a.severity, b.gcid, b.tid);
    });
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
        "bad calls: %td of %zu (thresholds: loss %g %%, jitter %g%s, round trip %g%s)", bad,
        calls.size(), thresholds.loss_percent, thresholds.jitter, unit.c_str(),
        thresholds.round_trip, unit.c_str());
    return {text, static_cast<std::size_t>(length)};
}
