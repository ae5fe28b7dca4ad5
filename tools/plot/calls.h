// The reports, grouped into calls.
#pragma once

#include <string>
#include <vector>

#include "tools/plot/quality.h"

struct Call {
    using Reports = std::vector<const StatisticsLine*>;

    Reports near_end, far_end;  // in the order of time
    Quality quality;
    double severity = 0;

    bool is_bad() const { return severity >= 1; }
    Reports reports() const;  // of both ends, one at least
    const StatisticsLine& any_report() const;
};

// The calls of these lines, which must outlive them; the worst one first.
std::vector<Call> worst_first(const std::vector<StatisticsLine>& lines,
                              const Thresholds& thresholds);

// A figure of a report, with so many decimals unless it is huge.
std::string figure(double value, int decimals = 0);

// "bad calls: 2 of 6 (loss 1 %, jitter 30 ms or round trip 300 ms and above)". The unit comes with
// its blank.
std::string bad_calls_text(const std::vector<Call>& calls, const Thresholds& thresholds,
                           const std::string& unit);
