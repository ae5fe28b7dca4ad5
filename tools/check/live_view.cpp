#include "tools/check/live_view.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <system_error>

#include "log/debug_group.h"
#include "tools/check/findings.h"
#include "tools/check/loss_log.h"
#include "tools/check/output_file.h"
#include "tools/check/settings.h"
#include "tools/check/udp_socket.h"

namespace {

// What the kernel charges for a report of 500 bytes, with all that it keeps beside the text.
constexpr unsigned long CHARGED_FOR_REPORT = 1280;

constexpr const char* HEADING = "%-32s %9s %9s %20s\n";
constexpr const char* QUEUE_ROW = "%-32s %9lu %9lu %20lu\n";

std::string date_and_time(time_t moment)
{
    tm fields{};
    localtime_r(&moment, &fields);
    char text[64];
    return {text, strftime(text, sizeof text, "%F %T", &fields)};
}

unsigned long queue_limit()
{
    unsigned long bytes = 0;
    std::ifstream("/proc/sys/net/core/rmem_default") >> bytes;
    return bytes;
}

void show_queue(const UdpSocket& socket, const std::string& what, Findings& findings)
{
    const std::string name = what + ", port " + std::to_string(socket.port);
    std::printf(QUEUE_ROW, name.c_str(), socket.waiting, queue_limit(), socket.dropped);
    if (socket.dropped != 0)
        findings.warning(0, "lost: ", what, " in the receive queue of port ", socket.port, ": ",
                         socket.dropped, " datagrams, which are in no file and in no batch; raise ",
                         "net.core.rmem_default and restart the daemon");
}

void show_file(const OutputFile& file)
{
    const std::string name = file.name + file.extension;
    struct stat info {};
    if (stat(file.path().c_str(), &info) != 0) {
        std::printf(HEADING, name.c_str(), "-", "-", errno == ENOENT ? "none yet" : "not allowed");
        return;
    }
    const std::string archives =
        std::to_string(file.archives().size()) + " of " + std::to_string(file.max_archives);
    std::printf(HEADING, name.c_str(), std::to_string(info.st_size).c_str(), archives.c_str(),
                date_and_time(info.st_mtime).c_str());
}

// A file that somebody moved or deleted goes on receiving, where nobody looks for it.
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
            findings.error(0, "the daemon goes on writing to ", open, ", which somebody has moved ",
                           "or deleted; restart it, and leave its files to it");
}

// Where the daemon's log is, if it is in files: the file, and its archives. Else empty.
std::vector<std::string> log_paths(const Settings& settings, const Process& daemon,
                                   const OutputFile& last_file)
{
    std::vector<std::string> paths;
    if (settings.is_set(keys::LOG_FILE)) {
        paths = last_file.archives();
        paths.push_back(last_file.path());
    } else if (std::error_code error;
               std::filesystem::is_regular_file(daemon.standard_output(), error)) {
        paths.push_back(daemon.standard_output());
    }
    return paths;
}

// Returns how many losses the log tells of; nothing when it was not read.
std::optional<unsigned long> find_log_losses(const Settings& settings, const Process& daemon,
                                             const OutputFile& last_file, Findings& findings)
{
    LossLog log(daemon.started());
    bool is_read = false;
    unsigned long losses = 0;
    for (const std::string& path : log_paths(settings, daemon, last_file))
        is_read = log.add(path);
    for (const LossLog::Kind& kind : log.kinds()) {
        losses += kind.count;
        if (kind.count != 0)
            findings.warning(0, "lost: ", kind.lost, ": ", kind.count, "; ", kind.remedy);
    }
    if (!is_read) {
        findings.note(0, "the log was not read, and it may tell of more; journalctl _PID=",
                      daemon.id(), " | grep -E 'OVERFLOW|[Ff]ailed|Dropped|ignoring what'");
        return std::nullopt;
    }
    if (settings.number(keys::LOG_DEFAULT) == DBG_ERROR)
        findings.note(0, "log.default hides what the daemon itself drops; set log.default = 1");
    return losses;
}

}  // namespace

void show_daemon(const Settings& settings, const std::string& config_path, Findings& findings)
{
    const auto port = static_cast<std::uint16_t>(settings.number(keys::QOS_PORT));
    const std::optional<UdpSocket> reports = UdpSocket::at(port);
    const std::optional<UdpSocket> voice = UdpSocket::at(port + 1U);
    const std::optional<Process> daemon = reports ? reports->owner() : std::nullopt;
    if (!voice || !daemon || !daemon->is_daemon()) {
        findings.error(settings.line(keys::QOS_PORT), "no daemon listens on the ports ", port,
                       " and ", port + 1, "; journalctl -u voxstat tells why");
        return;
    }
    std::printf("\nvoxstat runs as process %d since %s\n\n", static_cast<int>(daemon->id()),
                date_and_time(daemon->started()).c_str());
    std::printf(HEADING, "receive queue", "waiting", "limit", "dropped datagrams");
    show_queue(*reports, "reports", findings);
    show_queue(*voice, "voice records", findings);
    std::printf("(in bytes as the kernel counts them; the limit holds about %lu reports of 500 "
                "bytes)\n\n",
                queue_limit() / CHARGED_FOR_REPORT);
    const std::vector<OutputFile> files = output_files(settings);
    std::printf(HEADING, "file", "bytes", "archives", "last write");
    for (const OutputFile& file : files)
        show_file(file);
    std::printf("\n");
    (void)std::fflush(stdout);

    struct stat info {};
    if (stat(config_path.c_str(), &info) == 0 && info.st_mtime > daemon->started())
        findings.warning(0, "the file is younger than the daemon, which reads it once; systemctl ",
                         "restart voxstat");
    check_open_files(*daemon, files, findings);
    const auto losses = find_log_losses(settings, *daemon, files.back(), findings);
    if (losses.value_or(0) + reports->dropped + voice->dropped == 0)
        findings.note(0, "lost: nothing that the queues ",
                      losses ? "or the log tell of" : "tell of");
}
