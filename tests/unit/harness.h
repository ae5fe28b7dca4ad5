// Helpers of the tests: temporary directories and the log. Every wait ends with an event or at its
// deadline.
// The log, the clock and the faults are global and are not reset: ctest runs each test in its own
// process.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "config/config_file.h"
#include "faults/faults.h"

constexpr long NOW = 1700000000;  // 2023-11-14 22:13:20 UTC

struct TempDir {  // deleted with its contents
    TempDir();
    ~TempDir();
    std::string operator/(const std::string& name) const { return path + "/" + name; }
    std::string path = "/tmp/voxstat-test-XXXXXX";
};

void write_file(const std::string& path, const std::string& text);
void set_age(const std::string& path, int hours);
std::string read_file(const std::string& path);  // "" if it does not exist
using FileSizes = std::map<std::string, std::uintmax_t>;
FileSizes sizes_of(const TempDir& dir);  // without directories
std::size_t count(const std::string& text, const std::string& part);
std::string replaced(std::string text, const std::string& part, const std::string& with);
ConfigFile config_of(const std::string& text, char separator = '=');
// True as soon as the condition holds; false after 20 seconds.
bool eventually(const std::function<bool()>& condition);
void stop_the_clock(long at = NOW);  // in UTC

// To 127.0.0.<host>.
void send_udp(int port, const std::string& datagram, unsigned host = 1);
// A voice record; length overrides the length of the payload.
std::string voice_record(const std::string& payload, std::optional<std::uint32_t> length = {});

// Returns what the action prints to standard output.
std::string printed(const std::function<void()>& action);

// Starts the logger and stops its writer thread, so that all messages stay in its buffer.
struct LogCapture {
    explicit LogCapture(const std::string& config = "log.default=4");
    // Returns what was logged since the last call, and what the action printed, without empty
    // lines, times and thread identifiers: "[ERROR] text", " [WARN] text".
    static std::string take(const std::function<void()>& action = [] {});
    static std::string bare(const std::string& log);
};
