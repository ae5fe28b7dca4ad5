#include "tools/sim/arrivals.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <utility>

namespace {

using std::chrono::microseconds;

// A packet that arrives, and its share of the longest delay.
struct Sent {
    std::size_t packet;  // cppcheck-suppress unusedStructMember
    double delay;        // cppcheck-suppress unusedStructMember; 0 to 1
};

// Removes lost packets at random, except for the first and the last one.
std::vector<Sent> sent_packets(std::size_t packets, std::size_t lost, std::mt19937& random)
{
    std::vector<Sent> sent;
    for (std::size_t i = 0; i < packets; i++) {
        const bool at_end = i == 0 || i + 1 == packets;
        const std::size_t candidates = packets - 1 - i;  // this one included
        if (!at_end && lost > 0 && random() % candidates < lost) {
            lost--;
            continue;
        }
        const double delay = static_cast<double>(random()) / std::mt19937::max();
        sent.push_back({i, !at_end ? delay : i == 0 ? 0 : 1});
    }
    return sent;
}

std::vector<Arrival> arrivals(const std::vector<Sent>& sent, microseconds longest_delay,
                              microseconds packet_time, bool in_order)
{
    std::vector<Arrival> arrivals;
    microseconds latest(0);
    for (const Sent& each : sent) {
        const microseconds own =
            packet_time * each.packet +
            std::chrono::duration_cast<microseconds>(longest_delay * each.delay);
        latest = std::max(latest, own);
        arrivals.push_back({each.packet, in_order ? latest : own});
    }
    std::stable_sort(arrivals.begin(), arrivals.end(),
                     [](const Arrival& a, const Arrival& b) { return a.time < b.time; });
    return arrivals;
}

double mean_jitter_ms(const std::vector<Arrival>& arrivals, microseconds packet_time)
{
    using Milliseconds = std::chrono::duration<double, std::milli>;
    constexpr double GAIN = 16;
    double jitter = 0;
    double sum = 0;
    for (std::size_t i = 1; i < arrivals.size(); i++) {
        const Milliseconds arrived = arrivals[i].time - arrivals[i - 1].time;
        const Milliseconds sent = packet_time * (static_cast<double>(arrivals[i].packet) -
                                                 static_cast<double>(arrivals[i - 1].packet));
        jitter += (std::fabs((arrived - sent).count()) - jitter) / GAIN;
        sum += jitter;
    }
    return sum / static_cast<double>(arrivals.size());
}

}  // namespace

std::vector<Arrival> arrivals_with(std::size_t packets, std::size_t lost, double jitter_ms,
                                   microseconds packet_time, std::uint32_t seed)
{
    // Packets in a queue arrive late but in order. A jitter higher than the time between two
    // packets is only possible if packets overtake each other.
    const bool in_order =
        jitter_ms < std::chrono::duration<double, std::milli>(packet_time).count();
    std::mt19937 random(seed);
    const std::vector<Sent> sent = sent_packets(packets, lost, random);
    const auto miss_ms = [&](microseconds longest_delay) {
        return mean_jitter_ms(arrivals(sent, longest_delay, packet_time, in_order), packet_time) -
               jitter_ms;
    };
    microseconds low(0);
    microseconds high = std::chrono::seconds(2);
    while (high - low > microseconds(1)) {
        const microseconds middle = (low + high) / 2;
        (miss_ms(middle) >= 0 ? high : low) = middle;
    }
    // If packets overtake each other, the jitter jumps; a similar delay may fit better.
    constexpr int NEARBY = 32, PARTS = 1000;
    microseconds best = high;
    double least_ms = std::fabs(miss_ms(best));
    for (int part = -NEARBY; part <= NEARBY && !in_order; part++) {
        const microseconds near = high + high * part / PARTS;
        if (const double miss = std::fabs(miss_ms(near)); miss < least_ms) {
            best = near;
            least_ms = miss;
        }
    }
    return arrivals(sent, best, packet_time, in_order);
}
