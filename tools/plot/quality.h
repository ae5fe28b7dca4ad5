// The worst figures of a call or stream, and how bad they are.
#pragma once

#include "tools/plot/speech_quality.h"
#include "tools/plot/statistics_line.h"

// A figure at or above its threshold is bad.
struct Thresholds {
    double loss_percent = 1, jitter = 30, round_trip = 300;
};

struct Quality {
    double loss_percent = 0, jitter = 0, round_trip = 0;  // the highest
    double rating = BEST_RATING;                          // the lowest

    void take(const Figures& figures, double a_rating);

    // The highest ratio of a figure to its threshold: 1 or more is bad.
    double severity(const Thresholds& thresholds) const;
};
