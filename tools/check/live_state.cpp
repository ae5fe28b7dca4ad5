#include "tools/check/live_state.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>

#include "log/debug_group.h"
#include "tools/check/findings.h"
#include "tools/check/journal.h"
#include "tools/check/line_time.h"
#include "tools/check/options.h"
#include "tools/check/output_file.h"
#include "tools/check/queue_history.h"
#include "tools/check/settings.h"
#include "tools/check/udp_socket.h"

namespace {

void add_queue(LiveState& state, const char* what, const UdpSocket& socket, const Options& options,
               time_t since, Findings& findings)
{
    const unsigned long dropped = options.state
                                      ? dropped_since(since, *options.state, state.process, socket)
                                      : socket.dropped;
    state.queues.push_back({what, socket.port, socket.waiting, dropped});
    if (dropped != 0)
        findings.warning(0, "lost: ", what, " in the receive queue of port ", socket.port, ": ",
                         dropped,
                         " datagrams, which are missing from the files and batches; raise ",
                         "net.core.rmem_default and restart the daemon");
}

void add_file(LiveState& state, const OutputFile& file)
{
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(file.path(), error);
    state.files.push_back({file.name + file.extension, error ? std::nullopt : std::optional(size),
                           file.archives().size(), file.max_archives, last_line_time(file)});
    struct statvfs space {};
    const auto is_there = [&](const auto& directory) { return directory.path == file.directory; };
    if (std::none_of(state.directories.begin(), state.directories.end(), is_there) &&
        statvfs(file.directory.c_str(), &space) == 0)
        state.directories.push_back(
            {file.directory, std::uint64_t{space.f_bavail} * space.f_frsize});
}

// The daemon keeps writing to a file that has been moved or deleted, where nobody looks for it.
void check_open_files(const Process& daemon, const std::vector<OutputFile>& files,
                      Findings& findings)
{
    std::set<std::string> directories, paths = {daemon.standard_output()};
    for (const OutputFile& file : files) {
        directories.insert(file.directory);
        paths.insert(file.path());
    }
    for (const std::string& open : daemon.open_files())
        if (directories.contains(open.substr(0, open.rfind('/') + 1)) && !paths.contains(open))
            findings.error(0, "the daemon is still writing to ", open, ", which has been moved ",
                           "or deleted; restart it, and do not move or delete live files");
}

// The log is in the daemon's own files, in a file that is its standard output, or in the journal.
bool read_log(const Settings& settings, const Process& daemon, const OutputFile& last_file,
              time_t since, LossLog& log)
{
    if (settings.is_set(keys::LOG_FILE)) {
        for (const std::string& archive : last_file.archives())
            log.add_file(archive);
        return log.add_file(last_file.path());
    }
    const std::string output = daemon.standard_output();
    if (std::error_code error; std::filesystem::is_regular_file(output, error))
        return log.add_file(output);
    // Without permission, the daemon's standard output is unknown; the journal is likely.
    return (output.empty() || output.starts_with("socket:")) &&
           add_journal(daemon.id(), since, log);
}

void find_losses(const LiveState& state, const Settings& settings, Findings& findings)
{
    unsigned long all = 0;
    for (const LossLog::Kind& kind : state.losses) {
        all += kind.count;
        if (kind.count != 0)
            findings.warning(0, "lost: ", kind.lost, ": ", kind.count, "; ", kind.remedy);
    }
    for (const LiveState::Queue& queue : state.queues)
        all += queue.dropped;
    if (!state.log_is_read)
        findings.warning(0, "the log could not be read, and may contain more losses; run this as ",
                         "root, or as a member of the groups voxstat and systemd-journal");
    else if (settings.number(keys::LOG_DEFAULT) == DBG_ERROR)
        findings.note(
            0, "at log.default = 0 the log does not contain all losses; set log.default = 1");
    if (all == 0)
        findings.note(0, "nothing was lost, according to the receive queues",
                      state.log_is_read ? " and the log" : "");
}

}  // namespace

unsigned long LiveState::queue_limit()
{
    unsigned long bytes = 0;
    std::ifstream("/proc/sys/net/core/rmem_default") >> bytes;
    return bytes;
}

LiveState LiveState::gather(const Settings& settings, const Options& options, Findings& findings)
{
    LiveState state;
    const std::vector<OutputFile> files = output_files(settings);
    for (const OutputFile& file : files)
        add_file(state, file);
    const auto port = static_cast<unsigned>(settings.number(keys::QOS_PORT));
    const std::optional<UdpSocket> reports = UdpSocket::at(port), voice = UdpSocket::at(port + 1);
    const std::optional<Process> daemon = reports ? reports->owner() : std::nullopt;
    if (!voice || !daemon || !daemon->is_daemon()) {
        findings.error(settings.line(keys::QOS_PORT), "no daemon listens on ports ", port, " and ",
                       port + 1, "; journalctl -u voxstat shows why");
        return state;
    }
    state.is_up = true;
    state.process = daemon->id();
    state.started = daemon->started();
    const time_t since =
        options.since ? std::max(state.started, time(nullptr) - *options.since) : state.started;
    add_queue(state, "reports", *reports, options, since, findings);
    add_queue(state, "voice records", *voice, options, since, findings);

    struct stat info {};
    if (stat(options.file.c_str(), &info) == 0 && info.st_mtime > state.started)
        findings.warning(0, "the file changed after the daemon started; systemctl restart voxstat");
    check_open_files(*daemon, files, findings);
    LossLog log(since);
    state.log_is_read = read_log(settings, *daemon, files.back(), since, log);
    if (state.log_is_read)
        state.losses = log.kinds();
    find_losses(state, settings, findings);
    return state;
}
