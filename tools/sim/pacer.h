// Waits for points of time counted from its construction.
//
// The deadlines are absolute, so that lateness does not add up: after a delay the next waits return
// at once until the schedule is caught up.
//
// As long as there is a pacer, and afterwards, SIGINT and SIGTERM only end the waiting, so that the
// run can say what it has done.
#pragma once

#include <chrono>
#include <csignal>

class Pacer {
public:
    Pacer();

    // False at once when a signal asks the program to stop; once for each signal.
    bool wait_until(std::chrono::nanoseconds since_start) const;
    double seconds_passed() const;

private:
    std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
    sigset_t _stop_signals{};
};
