#include "tools/plot/speech_quality.h"

#include <algorithm>

double rating(double loss_percent, double jitter_ms, double round_trip_ms, bool concealment)
{
    // How well the codec tolerates losses.
    constexpr double ROBUSTNESS_CONCEALED = 25.1, ROBUSTNESS_PLAIN = 4.3;
    constexpr double DISTURBING_DELAY_MS = 177.3;  // above this, conversation becomes difficult

    // One way, with a jitter buffer of common length.
    const double delay_ms = round_trip_ms / 2 + 2 * jitter_ms;
    const double delay_impairment =
        0.024 * delay_ms + 0.11 * std::max(0.0, delay_ms - DISTURBING_DELAY_MS);
    const double robustness = concealment ? ROBUSTNESS_CONCEALED : ROBUSTNESS_PLAIN;
    const double loss_impairment = 95 * loss_percent / (loss_percent + robustness);
    return BEST_RATING - delay_impairment - loss_impairment;
}

double opinion_score(double rating)
{
    if (rating <= 0)  // where the polynomial would rise again
        return 1;
    return std::clamp(1 + 0.035 * rating + 7e-6 * rating * (rating - 60) * (100 - rating), 1.0,
                      4.5);
}
