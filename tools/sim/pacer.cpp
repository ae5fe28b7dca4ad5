#include "tools/sim/pacer.h"

#include <cerrno>
#include <ctime>

void Pacer::wait_until(std::chrono::nanoseconds since_start) const
{
    constexpr std::chrono::nanoseconds SECOND = std::chrono::seconds(1);
    const std::chrono::nanoseconds deadline = _start.time_since_epoch() + since_start;
    const timespec at = {.tv_sec = deadline / SECOND,
                         .tv_nsec = static_cast<long>((deadline % SECOND).count())};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {}
}

double Pacer::seconds_passed() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
}
