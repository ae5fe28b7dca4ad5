// Makes C-library calls fail on demand, and sets the clock, the ports and the directories, by
// link-time wrappers (-Wl,--wrap=...). They see the calls that this link's own objects make, those
// of the test framework included, but not the calls made inside shared libraries.
//
// The switches lie in plain memory where zeros mean "nothing special": usable before any
// initialiser has run. A test sets its own with Faults::self(); voxstat-faulty shares them with
// the test that started it, through the file that the variable VOXSTAT_FAULTS names.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <string_view>

struct Faults {
    // clang-format off
    static constexpr std::array<std::string_view, 25> FUNCTIONS = {
        "open", "write", "fsync", "stat", "rename", "remove", "mkdir", "chown", "opendir",
        "access", "socket", "bind", "fcntl", "poll", "recvfrom", "pthread_create",
        "pthread_mutex_init", "asprintf", "curl_global_init", "curl_easy_init",
        "curl_easy_setopt", "curl_easy_perform", "signal", "usleep", "allocation"};
    // clang-format on
    static constexpr int SHORT_COUNT = -1;  // as the error of write(): half of the bytes go out

    // A test that shares the switches sets these three, in this layout.
    struct Calls {
        std::atomic<int> made, first, end, error;  // those from the first to before the end fail
        bool next_fails();
    };
    std::array<Calls, FUNCTIONS.size()> switches;
    std::atomic<long> clock_shift;  // seconds added to the clock
    std::array<char, 256> root{};   // see set_root()

    static Faults& self();

    // The n-th call of the function from now on, 1 being the next, fails with the error: an errno,
    // for pthread_* the result and for curl_easy_* the CURLcode. Onwards: so do all after it.
    void arm(std::string_view function, int n, int error, bool onwards = false);
    void disarm();  // all of them
    // How many since then.
    int calls(std::string_view function) const { return switches[id(function)].made; }

    // The same of all allocations, so many in a row. They count from the first wait for input on: a
    // lack of memory before that may end the daemon.
    void refuse_memory(int n, int times);

    // In a test's own process only: called before every call of these functions, on its thread,
    // with the arguments that matter most. While it is set, poll() does not wait.
    using Watch = std::function<void(std::string_view function, long argument, long second)>;
    static void set_watch(Watch watch);  // while no other thread runs

    // The directory below which the daemon's fixed directories lie; empty: where they really are.
    void set_root(const std::string& directory);

    // What bind() was asked for, first and second time, and the ports that are free and that it
    // took instead while any_port is set.
    std::array<std::atomic<int>, 2> asked_ports, ports;
    std::atomic<bool> any_port;
    std::atomic<long> clock_stands_at;  // unless 0, the second at which it stands still
    std::atomic<bool> skip_pauses;      // usleep() returns at once

    // For the wrappers: the error that this call must fail with, or 0; whether this allocation must
    // fail; the path to use. They allocate nothing.
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
