#include "tools/plot/quality.h"

#include <algorithm>

void Quality::take(const Figures& figures, double a_rating)
{
    loss_percent = std::max(loss_percent, figures.loss_percent);
    jitter = std::max({jitter, figures.jitter, figures.jitter_max});
    round_trip = std::max({round_trip, figures.round_trip, figures.round_trip_max});
    rating = std::min(rating, a_rating);
}

double Quality::severity(const Thresholds& thresholds) const
{
    return std::max({loss_percent / thresholds.loss_percent, jitter / thresholds.jitter,
                     round_trip / thresholds.round_trip});
}
