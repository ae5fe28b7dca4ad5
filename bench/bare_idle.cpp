// The floor of the daemon's idle cost: threads that do nothing but their pauses.
//
//   bare-idle THREADS
//
// Each thread sleeps 100 ms at a time; the main thread waits, as the daemon's does. Ends at
// SIGTERM.
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

constexpr useconds_t PAUSE_US = 100000;
constexpr int WAIT_MS = 60000;

std::atomic<bool> running{true};

void stop(int /*signal_number*/)
{
    running = false;
}

void pause_until_stopped()
{
    while (running)
        usleep(PAUSE_US);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("Usage: bare-idle THREADS\n", stderr);
        return EXIT_FAILURE;
    }
    std::vector<std::jthread> threads;
    for (int i = std::atoi(argv[1]); i > 0; i--)
        threads.emplace_back(pause_until_stopped);
    (void)std::signal(SIGTERM, stop);
    while (running)
        (void)poll(nullptr, 0, WAIT_MS);
    return EXIT_SUCCESS;
}
