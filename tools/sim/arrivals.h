// The arrival times of packets that give the receiver a certain loss and jitter.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

struct Arrival {
    std::size_t packet;              // from 0, in the order of sending
    std::chrono::microseconds time;  // since the first packet was sent
};

// In the order of arrival. The first and the last packet always arrive first and last, so that the
// receiver can tell how many were sent. The jitter is the mean of the values that RFC 3550 defines
// for each packet. The same seed gives the same arrivals.
std::vector<Arrival> arrivals_with(std::size_t packets, std::size_t lost, double jitter_ms,
                                   std::chrono::microseconds packet_time, std::uint32_t seed);
