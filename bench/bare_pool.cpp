// The least that an idle daemon can cost: its libraries, and threads that only sleep.
//
//   bare-pool THREADS HANDLES
//
// Like the daemon, it links libcurl, creates HANDLES handles and uses text streams. Each of the
// THREADS threads sleeps for 100 ms at a time, and the main thread waits. Exits on SIGTERM.
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
