// The state of the running daemon: gathered once, then printed in one of the formats.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "tools/check/loss_log.h"

class Findings;
class Settings;
struct Options;

struct LiveState {
    struct Queue {
        const char* what;
        unsigned port;
        unsigned long waiting;  // bytes, as the kernel counts them
        unsigned long dropped;  // datagrams, those that count
    };
    struct File {
        std::string name;  // without its directory
        std::optional<std::uintmax_t>
            size;  // bytes; nothing if the file does not exist or cannot be seen
        std::size_t archives;
        unsigned max_archives;
        std::optional<time_t> last_line;
    };
    struct Directory {
        std::string path;
        std::uint64_t free;  // bytes, for the daemon's user
    };

    bool is_up = false;
    pid_t process = 0;   // this and the members down to the queues: only for a running daemon
    time_t started = 0;  // seconds since the epoch, like all times here
    std::vector<Queue> queues;
    std::vector<File> files;
    std::vector<Directory> directories;
    bool log_is_read = false;
    std::vector<LossLog::Kind> losses;  // empty if the log could not be read

    // The limit of a queue, in bytes.
    static unsigned long queue_limit();

    // Gathers the state. Reports every loss, and a daemon that is not running, as findings.
    static LiveState gather(const Settings& settings, const Options& options, Findings& findings);
};
