// What is known of the running daemon: gathered once, then printed in one of the formats.
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
        unsigned long dropped;  // datagrams, as far as they count
    };
    struct File {
        std::string name;  // without its directory
        std::optional<std::uintmax_t>
            size;  // bytes; nothing without the file, or the right to look
        std::size_t archives;
        unsigned max_archives;
        std::optional<time_t> last_line;
    };
    struct Directory {
        std::string path;
        std::uint64_t free;  // bytes, for the daemon's user
    };

    bool is_up = false;
    pid_t process = 0;   // this and what follows, up to the queues: only of a running daemon
    time_t started = 0;  // seconds since the epoch, as all times here
    std::vector<Queue> queues;
    std::vector<File> files;
    std::vector<Directory> directories;
    bool log_is_read = false;
    std::vector<LossLog::Kind> losses;  // empty unless the log is read

    // Bytes that a queue takes.
    static unsigned long queue_limit();

    // Gathers it. Every loss is a finding; so is a daemon that does not run.
    static LiveState gather(const Settings& settings, const Options& options, Findings& findings);
};
