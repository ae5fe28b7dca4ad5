#include "tools/plot/quality_peaks.h"

#include <algorithm>

namespace {

double part_of(double value, double highest)
{
    return highest > 0 ? value / highest : 0;
}

}  // namespace

void QualityPeaks::take(const StatisticsLine& line)
{
    loss_percent = std::max(loss_percent, line.loss_percent);
    jitter = std::max({jitter, line.jitter, line.jitter_max});
    round_trip = std::max({round_trip, line.round_trip, line.round_trip_max});
}

double QualityPeaks::severity(const QualityPeaks& highest) const
{
    return part_of(loss_percent, highest.loss_percent) + part_of(jitter, highest.jitter) +
           part_of(round_trip, highest.round_trip);
}
