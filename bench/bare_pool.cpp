// The floor of what the daemon costs at rest: threads that only pause, and the libraries.
//
//   bare-pool THREADS HANDLES
//
// Links libcurl and uses text streams, as the daemon does, and makes that many handles. Each thread
// sleeps 100 ms at a time; the main thread waits, as the daemon's does. Ends at SIGTERM.
#include <curl/curl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <thread>
#include <vector>

#include "bench/until_sigterm.h"

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "Usage: bare-pool THREADS HANDLES" << std::endl;
        return EXIT_FAILURE;
    }
    stop_at_sigterm();
    std::vector<CURL*> handles;
    for (int i = std::atoi(argv[2]); i > 0; i--)
        handles.push_back(curl_easy_init());
    std::vector<std::jthread> threads;
    for (int i = std::atoi(argv[1]); i > 0; i--)
        threads.emplace_back([] {
            constexpr useconds_t PAUSE_US = 100000;
            while (running)
                usleep(PAUSE_US);
        });
    while (running)
        (void)poll(nullptr, 0, 60000);
    threads.clear();
    for (CURL* handle : handles)
        curl_easy_cleanup(handle);
    return EXIT_SUCCESS;
}
