#include "tools/plot/call_table.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

#include "tools/plot/time_axis.h"

namespace {

std::string begin_of(const Call& call)
{
    const Call::Reports reports = call.reports();
    const StatisticsLine* const first =
        *std::min_element(reports.begin(), reports.end(),
                          [](const auto* a, const auto* b) { return a->begin_s < b->begin_s; });
    return date_text(first->begin_s, static_cast<double>(first->zone_offset_s));
}

std::string or_dash(const std::string& text)
{
    return text.empty() ? "-" : text;
}

}  // namespace

std::string call_table(const std::vector<Call>& calls, const Caption& caption)
{
    std::ostringstream table;
    const auto columns = [&table](const auto&... texts) {
        constexpr int WIDTHS[] = {9, 12, 16, 22, 8, 10, 10, 7, 6};
        const int* width = WIDTHS;
        ((table << std::setw(*width++) << texts), ...);
    };
    const std::string unit = caption.in_ms ? "/ms" : "";
    columns("GCID", "TID", "Far_End_IP", "Date       Time", "Loss/%", "Jitter" + unit,
            "RTT" + unit);
    if (caption.in_ms)
        table << std::setw(7) << "R" << std::setw(6) << "MOS";
    for (const Call& call : calls) {
        const StatisticsLine& report = call.any_report();
        const Quality& quality = call.quality;
        table << "\n";
        columns(or_dash(report.gcid), or_dash(report.tid), or_dash(report.far_end), begin_of(call),
                figure(quality.loss_percent, 1), figure(quality.jitter),
                figure(quality.round_trip));
        if (caption.in_ms)
            table << std::setw(7) << figure(quality.rating, 1) << std::setw(6)
                  << figure(opinion_score(quality.rating), 2);
    }
    table << "\n" << bad_calls_text(calls, caption.thresholds, caption.unit()) << "\n";
    return table.str();
}
