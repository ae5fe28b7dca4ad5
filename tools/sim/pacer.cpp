#include "tools/sim/pacer.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

Pacer::Pacer()
{
    sigemptyset(&_stop_signals);
    sigaddset(&_stop_signals, SIGINT);
    sigaddset(&_stop_signals, SIGTERM);
    (void)sigprocmask(SIG_BLOCK, &_stop_signals, nullptr);  // fails only for invalid arguments
}

bool Pacer::wait_until(std::chrono::nanoseconds since_start) const
{
    using std::chrono::nanoseconds;
    constexpr nanoseconds SECOND = std::chrono::seconds(1);
    int stopped_by = -1;
    do {
        const nanoseconds left = std::max<nanoseconds>(
            _start + since_start - std::chrono::steady_clock::now(), nanoseconds(0));
        const timespec wait = {.tv_sec = static_cast<std::time_t>(left / SECOND),
                               .tv_nsec = static_cast<long>((left % SECOND).count())};
        stopped_by = sigtimedwait(&_stop_signals, nullptr, &wait);
    } while (stopped_by == -1 && errno == EINTR);  // by another signal
    return stopped_by == -1;
}

double Pacer::seconds_passed() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
}
