// How the quality of one direction of a call changes over time: it wavers about its own mean, and a
// troubled one gets bad for a while, slowly, and recovers.
#pragma once

#include <random>

struct QualitySample {
    double loss_percent;
    double jitter_ms;
    double round_trip_ms;
};

// The times are simulated seconds.
struct Trouble {
    double begin_s = 0, end_s = 0;
    double severity = 0;  // 0 to 1
};

class LineQuality {
public:
    // Draws its means from the generator, which must outlive it.
    LineQuality(std::mt19937& random, const Trouble& trouble);

    QualitySample at(double seconds);

private:
    double uniform(double low, double high);
    double trouble_at(double seconds) const;

    std::mt19937* _random;  // not owned
    Trouble _trouble;
    double _mean_loss_percent, _mean_jitter_ms, _mean_round_trip_ms;
    double _phase, _period_s;  // of the slow wavering
};
