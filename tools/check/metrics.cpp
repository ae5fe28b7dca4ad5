#include "tools/check/metrics.h"

#include "tools/check/findings.h"
#include "tools/check/live_state.h"

std::vector<Metric> metrics_of(const LiveState& state, const Findings& findings)
{
    Metric up{"voxstat_up", "1 if the daemon listens on its ports.", nullptr, {{"", state.is_up}}};
    Metric start{"voxstat_start_time_seconds", "When the daemon started.", nullptr, {}};
    Metric dropped{"voxstat_receive_queue_dropped_datagrams_total",
                   "Datagrams that the kernel dropped because the queue was full.",
                   "port",
                   {}};
    Metric waiting{"voxstat_receive_queue_bytes",
                   "What waits in the queue, as the kernel counts.",
                   "port",
                   {}};
    Metric limit{"voxstat_receive_queue_limit_bytes", "What a queue can hold.", nullptr, {}};
    Metric log{"voxstat_log_read", "1 if the log could be read.", nullptr, {}};
    Metric lost{"voxstat_lost_total", "Losses that the log tells of.", "what", {}};
    Metric posts{"voxstat_posts_failed_total", "Batches that failed or were refused.", nullptr, {}};
    Metric bytes{"voxstat_file_bytes", "Size of the live file.", "file", {}};
    Metric last{
        "voxstat_file_last_line_timestamp_seconds", "Time in its last line or record.", "file", {}};
    Metric archives{"voxstat_file_archives", "Archives of the file.", "file", {}};
    Metric free{"voxstat_filesystem_free_bytes", "What the daemon can still use.", "directory", {}};
    Metric problems{"voxstat_check_problems",
                    "Errors and warnings of voxstat-check.",
                    "severity",
                    {{"error", findings.errors()}, {"warning", findings.warnings()}}};

    const auto seconds = [](time_t moment) { return static_cast<std::uint64_t>(moment); };
    if (state.is_up) {
        start.samples = {{"", seconds(state.started)}};
        limit.samples = {{"", LiveState::queue_limit()}};
        log.samples = {{"", state.log_is_read}};
    }
    for (const LiveState::Queue& queue : state.queues) {
        dropped.samples.emplace_back(std::to_string(queue.port), queue.dropped);
        waiting.samples.emplace_back(std::to_string(queue.port), queue.waiting);
    }
    if (state.log_is_read)
        posts.samples = {{"", 0}};
    for (const LossLog::Kind& kind : state.losses) {
        lost.samples.emplace_back(kind.what, kind.count);
        if (std::string(kind.what).starts_with("batches_"))
            posts.samples[0].second += kind.count;
    }
    for (const LiveState::File& file : state.files) {
        archives.samples.emplace_back(file.name, file.archives);
        if (file.size)
            bytes.samples.emplace_back(file.name, *file.size);
        if (file.last_line)
            last.samples.emplace_back(file.name, seconds(*file.last_line));
    }
    for (const LiveState::Directory& directory : state.directories)
        free.samples.emplace_back(directory.path, directory.free);
    return {up,    start, dropped, waiting,  limit, log,     lost,
            posts, bytes, last,    archives, free,  problems};
}
