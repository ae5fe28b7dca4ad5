#include "tools/plot/quality.h"

#include <algorithm>

void Quality::take(const StatisticsLine& line)
{
    loss_percent = std::max(loss_percent, line.loss_percent);
    jitter = std::max({jitter, line.jitter, line.jitter_max});
    round_trip = std::max({round_trip, line.round_trip, line.round_trip_max});
    rating = std::min(rating, line.rating);
}

double Quality::severity(const Thresholds& thresholds) const
{
    return std::max({loss_percent / thresholds.loss_percent, jitter / thresholds.jitter,
                     round_trip / thresholds.round_trip});
}
