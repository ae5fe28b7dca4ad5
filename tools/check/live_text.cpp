#include "tools/check/live_text.h"

#include <cstdio>
#include <string>

#include "tools/check/live_state.h"

namespace {

// The kernel's charge for a report of 500 bytes, with its own overhead.
constexpr unsigned long CHARGED_FOR_REPORT = 1280;
constexpr std::uint64_t MIB = 1048576;

constexpr const char* HEADING = "%-32s %9s %9s %20s\n";
constexpr const char* QUEUE_ROW = "%-32s %9lu %9lu %20lu\n";

std::string date_and_time(time_t moment)
{
    tm fields{};
    localtime_r(&moment, &fields);
    char text[64];
    return {text, strftime(text, sizeof text, "%F %T", &fields)};
}

void print_queues(const LiveState& state)
{
    const unsigned long limit = LiveState::queue_limit();
    std::printf("\nvoxstat has been running as process %d since %s\n\n",
                static_cast<int>(state.process), date_and_time(state.started).c_str());
    std::printf(HEADING, "receive queue", "waiting", "limit", "dropped datagrams");
    for (const LiveState::Queue& queue : state.queues) {
        const std::string name = std::string(queue.what) + ", port " + std::to_string(queue.port);
        std::printf(QUEUE_ROW, name.c_str(), queue.waiting, limit, queue.dropped);
    }
    std::printf("(in bytes as the kernel counts them; the limit holds about %lu reports of 500 "
                "bytes)\n",
                limit / CHARGED_FOR_REPORT);
}

}  // namespace

void print_text(const LiveState& state)
{
    if (state.is_up)
        print_queues(state);
    std::printf("\n");
    std::printf(HEADING, "file", "bytes", "archives", "last line");
    for (const LiveState::File& file : state.files) {
        const std::string archives =
            std::to_string(file.archives) + " of " + std::to_string(file.max_archives);
        std::printf(HEADING, file.name.c_str(),
                    file.size ? std::to_string(*file.size).c_str() : "-", archives.c_str(),
                    file.last_line ? date_and_time(*file.last_line).c_str() : "none yet");
    }
    for (const LiveState::Directory& directory : state.directories)
        std::printf("(%llu MiB free at %s)\n",
                    static_cast<unsigned long long>(directory.free / MIB), directory.path.c_str());
    std::printf("\n");
    (void)std::fflush(stdout);
}
