// What the libraries alone cost in memory: links libcurl and uses text streams, as the daemon does.
//
//   bare-memory          does nothing with it
//   bare-memory pool     initialises it and makes five handles and five threads
//
// Waits for SIGTERM, so that its peak can be read from outside.
#include <curl/curl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <thread>
#include <vector>

namespace {

constexpr int POOL_SIZE = 5;
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
    (void)std::signal(SIGTERM, stop);
    std::cout << "waiting" << std::endl;
    while (running)
        (void)poll(nullptr, 0, WAIT_MS);
    threads.clear();
    for (CURL* handle : handles)
        curl_easy_cleanup(handle);
    return EXIT_SUCCESS;
}
