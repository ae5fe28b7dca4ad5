// The highest loss, jitter and round-trip time of something, to find the worst ones.
#pragma once

#include "tools/plot/statistics_line.h"

struct QualityPeaks {
    double loss_percent = 0, jitter = 0, round_trip = 0;

    void take(const StatisticsLine& line);

    // How near the peaks come to the highest ones, 0 to 3. Nothing is assumed about what is bad or
    // about the units that the voice software reports in.
    double severity(const QualityPeaks& highest) const;
};
