// Makes C-library calls fail on demand, moves the log directory and moves the clock, by link-time
// wrappers (-Wl,--wrap=...). They see the calls that this link's own objects make, those of the
// test framework included, but not the calls made inside shared libraries.
//
// The switches lie in plain memory where zeros mean "nothing special": usable before any
// initialiser has run. A test sets its own with Faults::self(); voxstat-faulty shares them with
// the test that started it, through the file that the variable VOXSTAT_FAULTS names.
#pragma once

#include <array>
#include <atomic>
#include <string>
#include <string_view>

struct Faults {
    // clang-format off
    static constexpr std::array<std::string_view, 22> FUNCTIONS = {
        "open", "write", "fsync", "stat", "rename", "remove", "mkdir", "chown", "opendir",
        "access", "socket", "bind", "fcntl", "poll", "recvfrom", "pthread_create",
        "pthread_mutex_init", "asprintf", "curl_easy_init", "curl_easy_setopt",
        "curl_easy_perform", "signal"};
    // clang-format on
    static constexpr int SHORT_COUNT = -1;  // as the error of write(): half of the bytes go out

    static Faults& self();
    // Maps the file, made when it is missing, until the process ends.
    static Faults& shared(const std::string& path);

    // The n-th call of the function from now on, 1 being the next, fails with the error: an errno,
    // for pthread_* the result and for curl_easy_* the CURLcode. Onwards: so do all after it.
    void arm(std::string_view function, int n, int error, bool onwards = false);
    void restart();  // counts anew: 1 is the next call again
    bool disarm();   // true when the armed call was reached
    bool reached() const { return _reached; }
    int calls(std::string_view function) const { return _calls[id(function)]; }  // since then

    // The directory that takes the place of /var/log/current.
    void map_log_directory(const std::string& directory);

    std::atomic<long> clock_shift;      // seconds added to the clock
    std::atomic<long> clock_stands_at;  // unless 0, the second at which it stands still
    std::atomic<bool> skip_pauses;      // usleep() returns at once
    std::atomic<int> short_pauses;      // how often 10 ms were asked of usleep()

    // For the wrappers: the error that this call must fail with, or 0; the path to use.
    int next_call(std::size_t function);
    std::string mapped(const char* path) const;

    static constexpr std::size_t id(std::string_view function)
    {
        std::size_t index = 0;
        while (FUNCTIONS.at(index) != function)  // an unknown name does not compile, or throws
            index++;
        return index;
    }

private:
    std::atomic<std::size_t> _armed;
    std::atomic<int> _n, _error;  // _n 0: nothing fails
    std::atomic<bool> _onwards, _reached;
    std::array<std::atomic<int>, FUNCTIONS.size()> _calls;
    std::array<char, 256> _log_directory{};
};
