#include "tools/sim/line_quality.h"

#include <cmath>
#include <numbers>

namespace {

// The maximum that a disturbance adds.
constexpr double WORST_LOSS_PERCENT = 16;
constexpr double WORST_JITTER_MS = 75;
constexpr double WORST_ROUND_TRIP_MS = 310;

}  // namespace

LineQuality::LineQuality(std::mt19937& random, const Trouble& trouble)
    : _random(&random), _trouble(trouble), _mean_loss_percent(uniform(0.05, 0.25)),
      _mean_jitter_ms(uniform(4, 10)), _mean_round_trip_ms(uniform(25, 70)),
      _phase(uniform(0, 2 * std::numbers::pi)), _period_s(uniform(60, 180))
{
}

QualitySample LineQuality::at(double seconds)
{
    const double wave = std::sin(_phase + 2 * std::numbers::pi * seconds / _period_s);
    const double trouble = trouble_at(seconds);
    return {.loss_percent = std::fmax(0, _mean_loss_percent * (1 + wave) + uniform(-0.3, 0.3)) +
                            trouble * WORST_LOSS_PERCENT * uniform(0.8, 1.2),
            .jitter_ms = _mean_jitter_ms * (1 + 0.25 * wave) + uniform(-1, 1) +
                         trouble * WORST_JITTER_MS * uniform(0.85, 1.15),
            .round_trip_ms = _mean_round_trip_ms * (1 + 0.1 * wave) + uniform(-3, 3) +
                             trouble * WORST_ROUND_TRIP_MS * uniform(0.9, 1.1)};
}

// Not std::uniform_real_distribution: the same seed must give the same calls with every library.
double LineQuality::uniform(double low, double high)
{
    const double fraction = static_cast<double>((*_random)()) / std::mt19937::max();
    return low + (high - low) * fraction;
}

// Rises and falls like a sine.
double LineQuality::trouble_at(double seconds) const
{
    if (seconds <= _trouble.begin_s || seconds >= _trouble.end_s)
        return 0;
    const double part = (seconds - _trouble.begin_s) / (_trouble.end_s - _trouble.begin_s);
    return _trouble.severity * std::sin(std::numbers::pi * part);
}
