// Waits until given times after its construction.
//
// The deadlines are absolute, so delays do not add up: after a delay, the next waits return
// immediately until the schedule is met again.
//
// From the first pacer on, SIGINT and SIGTERM only interrupt the waiting, so that the run can print
// what it has done.
#pragma once

#include <chrono>
#include <csignal>

class Pacer {
public:
    Pacer();

    // Returns false immediately if a signal asks the program to stop; once per signal.
    bool wait_until(std::chrono::nanoseconds since_start) const;
    double seconds_passed() const;

private:
    std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
    sigset_t _stop_signals{};
};
