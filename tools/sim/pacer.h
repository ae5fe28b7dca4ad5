// Waits for points of time counted from its construction.
//
// The deadlines are absolute, so that lateness does not add up: after a delay the next waits return
// at once until the schedule is caught up.
#pragma once

#include <chrono>

class Pacer {
public:
    void wait_until(std::chrono::nanoseconds since_start) const;
    double seconds_passed() const;

private:
    // steady_clock is CLOCK_MONOTONIC here, which clock_nanosleep knows.
    std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
};
