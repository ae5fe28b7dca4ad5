#include "tools/check/metrics.h"

#include "tools/check/findings.h"
#include "tools/check/live_state.h"

namespace {

using Metrics = std::vector<Metric>;

std::uint64_t seconds(time_t moment)
{
    return static_cast<std::uint64_t>(moment);
}

Metrics of_process(const LiveState& state)
{
    Metric up{"voxstat_up",
              "1 if the daemon listens on its ports, otherwise 0.",
              nullptr,
              {{"", state.is_up}}};
    Metric start{
        "voxstat_start_time_seconds", "Start time of the daemon, as Unix time.", nullptr, {}};
    if (state.is_up)
        start.samples = {{"", seconds(state.started)}};
    return {up, start};
}

Metrics of_queues(const LiveState& state)
{
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
    for (const LiveState::Queue& queue : state.queues) {
        dropped.samples.emplace_back(std::to_string(queue.port), queue.dropped);
        waiting.samples.emplace_back(std::to_string(queue.port), queue.waiting);
    }
    if (state.is_up)
        limit.samples = {{"", LiveState::queue_limit()}};
    return {dropped, waiting, limit};
}

Metrics of_log(const LiveState& state)
{
    Metric log{"voxstat_log_read", "1 if the log could be read, otherwise 0.", nullptr, {}};
    Metric lost{"voxstat_lost_total", "Losses that appear in the log.", "what", {}};
    Metric posts{"voxstat_posts_failed_total",
                 "Batches that could not be sent or were refused.",
                 nullptr,
                 {}};
    if (state.is_up)
        log.samples = {{"", state.log_is_read}};
    if (state.log_is_read)
        posts.samples = {{"", 0}};
    for (const LossLog::Kind& kind : state.losses) {
        lost.samples.emplace_back(kind.what, kind.count);
        if (std::string(kind.what).starts_with("batches_"))
            posts.samples[0].second += kind.count;
    }
    return {log, lost, posts};
}

Metrics of_files(const LiveState& state)
{
    Metric bytes{"voxstat_file_bytes", "Size of the live file.", "file", {}};
    Metric last{"voxstat_file_last_line_timestamp_seconds",
                "Time in the last line or record, as Unix time.",
                "file",
                {}};
    Metric archives{"voxstat_file_archives", "Number of archives of the file.", "file", {}};
    Metric free{
        "voxstat_filesystem_free_bytes", "Free space that the daemon can use.", "directory", {}};
    for (const LiveState::File& file : state.files) {
        archives.samples.emplace_back(file.name, file.archives);
        if (file.size)
            bytes.samples.emplace_back(file.name, *file.size);
        if (file.last_line)
            last.samples.emplace_back(file.name, seconds(*file.last_line));
    }
    for (const LiveState::Directory& directory : state.directories)
        free.samples.emplace_back(directory.path, directory.free);
    return {bytes, last, archives, free};
}

Metrics of_findings(const Findings& findings)
{
    return {{"voxstat_check_problems",
             "Number of findings of this severity.",
             "severity",
             {{"error", findings.errors()}, {"warning", findings.warnings()}}}};
}

}  // namespace

std::vector<Metric> metrics_of(const LiveState& state, const Findings& findings)
{
    Metrics all;
    for (const Metrics& some : {of_process(state), of_queues(state), of_log(state), of_files(state),
                                of_findings(findings)})
        all.insert(all.end(), some.begin(), some.end());
    return all;
}
