// Lets the bare programs run until SIGTERM.
#pragma once

#include <atomic>
#include <csignal>

inline std::atomic<bool> running{true};

inline void stop_at_sigterm()
{
    (void)std::signal(SIGTERM, [](int /*signal_number*/) { running = false; });
}
