// The floor of the daemon's idle cost: threads that do nothing but their pauses.
//
//   bare-idle THREADS
//
// Each thread sleeps 100 ms at a time; the main thread waits, as the daemon's does. Ends at
// SIGTERM.
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "bench/bare_process.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("Usage: bare-idle THREADS\n", stderr);
        return EXIT_FAILURE;
    }
    std::vector<std::jthread> threads;
    for (int i = std::atoi(argv[1]); i > 0; i--)
        threads.emplace_back(pause_until_stopped);
    stop_at_sigterm();
    wait_until_stopped();
    return EXIT_SUCCESS;
}
