#include "tools/check/metrics.h"

#include "tools/check/findings.h"
#include "tools/check/live_state.h"

std::vector<Metric> metrics_of(const LiveState& state, const Findings& findings)
{
    Metric up{"voxstat_up",
              "1 if the daemon listens on its ports, otherwise 0.",
              nullptr,
              {{"", state.is_up}}};
    Metric start{
        "voxstat_start_time_seconds", "Start time of the daemon, as Unix time.", nullptr, {}};
    Metric dropped{"voxstat_receive_queue_dropped_datagrams_total",
                   "Datagrams that the kernel has dropped because the receive queue was full.",
                   "port",
                   {}};
    Metric waiting{"voxstat_receive_queue_bytes",
                   "Size of the data in the receive queue, as the kernel counts it.",
                   "port",
                   {}};
    Metric limit{"voxstat_receive_queue_limit_bytes",
                 "Limit of a receive queue, as the kernel counts it.",
                 nullptr,
                 {}};
    Metric log{"voxstat_log_read", "1 if the log could be read, otherwise 0.", nullptr, {}};
    Metric lost{"voxstat_lost_total", "Losses that appear in the log.", "what", {}};
    Metric posts{"voxstat_posts_failed_total",
                 "Batches that could not be sent or were refused.",
                 nullptr,
                 {}};
    Metric bytes{"voxstat_file_bytes", "Size of the live file.", "file", {}};
    Metric last{"voxstat_file_last_line_timestamp_seconds",
                "Time in the last line or record, as Unix time.",
                "file",
                {}};
    Metric archives{"voxstat_file_archives", "Number of archives of the file.", "file", {}};
    Metric free{
        "voxstat_filesystem_free_bytes", "Free space that the daemon can use.", "directory", {}};
    Metric problems{"voxstat_check_problems",
                    "Number of findings of this severity.",
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
