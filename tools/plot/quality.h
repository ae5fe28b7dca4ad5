// The worst figures of something, and how bad they are.
#pragma once

#include "tools/plot/speech_quality.h"
#include "tools/plot/statistics_line.h"

// From these values on, a figure is bad.
struct Thresholds {
    double loss_percent = 1, jitter = 30, round_trip = 300;
};

struct Quality {
    double loss_percent = 0, jitter = 0, round_trip = 0;  // the highest
    double rating = BEST_RATING;                          // the lowest

    void take(const Figures& figures, double a_rating);

    // The figure that is the worst by its threshold, as a part of it: 1 and more is bad.
    double severity(const Thresholds& thresholds) const;
};
