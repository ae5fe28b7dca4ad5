// Makes C-library calls fail on demand, and sets the clock, the ports and the directories, by
// link-time wrappers (-Wl,--wrap=...). They see the calls that this link's own objects make,
// including those of the test framework, but not the calls made inside shared libraries.
//
// The switches are plain memory in which zero means "off", so they work before any initialiser has
// run. A test sets its own with Faults::self(); voxstat-faulty shares them with the test that
// started it through a file, which the environment variable VOXSTAT_FAULTS names.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <string_view>

struct Faults {
    // clang-format off
    static constexpr std::array<std::string_view, 27> FUNCTIONS = {
        "open", "write", "fsync", "stat", "rename", "remove", "mkdir", "chown", "opendir",
        "access", "socket", "bind", "fcntl", "poll", "recvfrom", "pthread_create",
        "pthread_mutex_init", "asprintf", "curl_global_init", "curl_easy_init",
        "curl_easy_setopt", "curl_easy_perform", "signal", "usleep", "geteuid", "getegid",
        "allocation"};
    // clang-format on
    static constexpr int SHORT_COUNT = -1;  // as an error of write(): writes half of the bytes

    // A test in another process sets these three, in this layout.
    struct Calls {
        std::atomic<int> made, first, end, error;  // the calls from first until before end fail
        bool next_fails();
    };
    std::array<Calls, FUNCTIONS.size()> switches;
    std::atomic<long> clock_shift;  // seconds added to the clock
    std::array<char, 256> root{};   // see set_root()

    static Faults& self();

    // Makes the n-th next call of the function fail with the error: an errno, or the result of
    // pthread_*, the CURLcode of curl_easy_*, or the id that gete*id() returns. With onwards, all
    // later calls fail too.
    void arm(std::string_view function, int n, int error, bool onwards = false);
    void disarm();  // for all functions
    // Number of calls since the last of these two.
    int calls(std::string_view function) const { return switches[id(function)].made; }

    // The same for this many consecutive allocations. Counts from the first wait for input: a lack
    // of memory before that may make the daemon exit.
    void refuse_memory(int n, int times);

    // Only in the process of a test: called before every call of these functions, on its thread,
    // with the most important arguments. While it is set, poll() does not wait.
    using Watch = std::function<void(std::string_view function, long argument, long second)>;
    static void set_watch(Watch watch);  // only while no other thread runs

    // A prefix for the daemon's fixed directories; empty: none.
    void set_root(const std::string& directory);

    // The ports of the first and the second bind(), and the free ports that it used instead while
    // any_port is set.
    std::array<std::atomic<int>, 2> asked_ports, ports;
    std::atomic<bool> any_port;
    std::atomic<long> clock_stands_at;  // unless 0, the time at which the clock stands still
    std::atomic<bool> skip_pauses;      // usleep() returns immediately

    // For the wrappers: the error with which this call must fail, or 0; whether this allocation
    // must fail; the path to use. They do not allocate.
    int next_call(std::size_t function, long argument = 0, long second = 0);
    bool refuses_memory();
    std::array<char, 512> mapped(const char* path) const;

    static constexpr std::size_t id(std::string_view function)
    {
        std::size_t index = 0;
        while (FUNCTIONS.at(index) != function)  // an unknown name does not compile, or throws
            index++;
        return index;
    }

    static Watch watch;
};
