#include "tools/plot/call_table.h"

#include <algorithm>
#include <array>

#include "tools/plot/printable.h"
#include "tools/plot/time_axis.h"

namespace {

constexpr std::array<std::size_t, 9> WIDTHS = {9, 12, 16, 22, 8, 10, 10, 7, 6};

using Row = std::array<std::string, WIDTHS.size()>;

std::string or_dash(const std::string& text)
{
    return text.empty() ? "-" : text;
}

Row heading(const Caption& caption)
{
    const std::string unit = caption.in_ms ? "/ms" : "";
    return {"GCID",       "TID", "Far_End_IP", "Date       Time", "Loss/%", "Jitter" + unit,
            "RTT" + unit, "R",   "MOS"};
}

Row row_of(const Call& call)
{
    const Quality& quality = call.quality;
    return {or_dash(call.gcid),
            or_dash(call.tid),
            or_dash(call.far_end),
            date_text(call.begin_s, static_cast<double>(call.zone_offset_s)),
            figure(quality.loss_percent, 1),
            figure(quality.jitter),
            figure(quality.round_trip),
            figure(quality.rating, 1),
            figure(opinion_score(quality.rating), 2)};
}

}  // namespace

std::string call_table(const std::vector<Call>& calls, const Caption& caption)
{
    std::vector<Row> rows = {heading(caption)};
    for (const Call& call : calls)
        rows.push_back(row_of(call));
    auto widths = WIDTHS;
    for (const Row& row : rows)
        for (std::size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], columns_of(row[i]) + (i > 0 ? 1 : 0));

    const std::size_t columns = WIDTHS.size() - (caption.in_ms ? 0 : 2);  // without R and MOS
    std::string table;
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < columns; i++)
            table += right_aligned(row[i], widths[i]);
        table += "\n";
    }
    return table + bad_calls_text(calls, caption.thresholds, caption.unit()) + "\n";
}
