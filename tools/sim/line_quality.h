// How the quality of a stream changes over time: it varies slowly around its mean; in a bad call it
// slowly gets worse and recovers.
#pragma once

#include <random>

struct QualitySample {
    double loss_percent;
    double jitter_ms;
    double round_trip_ms;
};

// Times in simulated seconds.
struct Trouble {
    double begin_s = 0, end_s = 0;
    double severity = 0;  // 0 to 1
};

class LineQuality {
public:
    // Draws its means from the random generator, which must outlive it.
    LineQuality(std::mt19937& random, const Trouble& trouble);

    QualitySample at(double seconds);

private:
    double uniform(double low, double high);
    double trouble_at(double seconds) const;

    std::mt19937* _random;  // not owned
    Trouble _trouble;
    double _mean_loss_percent, _mean_jitter_ms, _mean_round_trip_ms;
    double _phase, _period_s;  // of the slow variation
};
