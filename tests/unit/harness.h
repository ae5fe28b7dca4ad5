// What the tests stand on: temporary directories and the log. Every wait ends at an event or at its
// deadline.
// The log, the clock and the faults belong to the process and are not put back: each test runs in
// a process of its own, as ctest starts them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "config/config_file.h"
#include "faults/faults.h"

constexpr long NOW = 1700000000;  // 2023-11-14 22:13:20 UTC

struct TempDir {  // removed with all that is in it
    TempDir();
    ~TempDir();
    std::string operator/(const std::string& name) const { return path + "/" + name; }
    std::string path = "/tmp/voxstat-test-XXXXXX";
};

void write_file(const std::string& path, const std::string& text);
void set_age(const std::string& path, int hours);
std::string read_file(const std::string& path);  // "" when there is none
using FileSizes = std::map<std::string, std::uintmax_t>;
FileSizes sizes_of(const TempDir& dir);  // without those of directories
std::size_t count(const std::string& text, const std::string& part);
std::string replaced(std::string text, const std::string& part, const std::string& with);
ConfigFile config_of(const std::string& text, char separator = '=');
// True as soon as the condition holds; false when it does not in 20 seconds.
bool eventually(const std::function<bool()>& condition);
void stop_the_clock(long at = NOW);  // in UTC

// To 127.0.0.<host>.
void send_udp(int port, const std::string& datagram, unsigned host = 1);
// A voice record; its length word is the truth unless it is given.
std::string voice_record(const std::string& payload, std::optional<std::uint32_t> length = {});

// What the action prints on standard output.
std::string printed(const std::function<void()>& action);

// Starts the logger and ends its writer thread, so that all that is logged waits to be taken.
struct LogCapture {
    explicit LogCapture(const std::string& config = "log.default=4");
    // What was logged since the last call, and what the action printed, without empty lines, time
    // stamps and thread identifiers: "[ERROR] text", " [WARN] text".
    static std::string take(const std::function<void()>& action = [] {});
    static std::string bare(const std::string& log);
};
