// What the libraries alone cost in memory: links libcurl and uses text streams, as the daemon does.
//
//   bare-memory          does nothing with it
//   bare-memory pool     initialises it and makes five handles and five threads
//
// Waits for SIGTERM, so that its peak can be read from outside.
#include <curl/curl.h>

#include <cstdlib>
#include <iostream>
#include <thread>
#include <vector>

#include "bench/bare_process.h"

namespace {

constexpr int POOL_SIZE = 5;

// Static, as the daemon's, so that the library is linked even where it is not used.
std::vector<CURL*> handles;
std::vector<std::jthread> threads;

bool make_pool()
{
    if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK)
        return false;
    for (int i = 0; i < POOL_SIZE; i++) {
        handles.push_back(curl_easy_init());
        threads.emplace_back(pause_until_stopped);
    }
    return true;
}

}  // namespace

int main(int argc, char** /*argv*/)
{
    if (argc > 1 && !make_pool())
        return EXIT_FAILURE;
    stop_at_sigterm();
    std::cout << "waiting" << std::endl;
    wait_until_stopped();
    threads.clear();
    for (CURL* handle : handles)
        curl_easy_cleanup(handle);
    return EXIT_SUCCESS;
}
