// What the bare programs share: they run until SIGTERM, and some have threads that only pause.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

inline std::atomic<bool> running{true};

inline void stop_at_sigterm()
{
    (void)std::signal(SIGTERM, [](int /*signal_number*/) { running = false; });
}

// As the main thread of an idle daemon does.
inline void wait_until_stopped()
{
    constexpr int WAIT_MS = 60000;
    while (running)
        (void)poll(nullptr, 0, WAIT_MS);
}

// As its other threads do.
inline void pause_until_stopped()
{
    constexpr useconds_t PAUSE_US = 100000;
    while (running)
        usleep(PAUSE_US);
}
