#include "tools/check/disk_check.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <string_view>
#include <system_error>

#include "config/limits.h"
#include "tools/check/daemon_user.h"
#include "tools/check/findings.h"
#include "tools/check/mount_view.h"
#include "tools/check/output_file.h"
#include "tools/check/service.h"
#include "tools/check/settings.h"

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t MIB = 1048576;

std::string parent_of(const std::string& directory)  // directory ends in a slash
{
    return fs::absolute(directory).parent_path().parent_path();
}

// The daemon creates only the last component, with a mode that excludes all other users.
void find_missing(const OutputFile& file, const DaemonUser& user, Findings& findings)
{
    const std::string parent = parent_of(file.directory);
    const std::string remedy =
        "; create it: install -d -o " + user.name() + " -m 750 " + file.directory;
    std::error_code ignored;
    if (!fs::is_directory(parent, ignored))
        findings.error(file.line, file.directory, " does not exist and cannot be created, because ",
                       parent, " does not exist either", remedy);
    else if (user.access(parent, W_OK | X_OK) != 0)
        findings.error(file.line, file.directory,
                       " does not exist and cannot be created by the user ", user.name(), remedy);
    else
        findings.warning(file.line, file.directory,
                         " does not exist; the daemon would create it with ",
                         "mode 0744, so no other user could enter it", remedy);
}

bool is_below(const std::string& directory, std::initializer_list<std::string_view> places)
{
    return std::any_of(places.begin(), places.end(),
                       [&](std::string_view place) { return directory.starts_with(place); });
}

const char* home_remedy(const std::string& directory)
{
    return is_below(directory, {"/home/", "/root/", "/run/user/"}) ? " and ProtectHome=no" : "";
}

// systemd does not start a service whose state directory is a symbolic link.
bool find_link(const OutputFile& file, const Service& service, Findings& findings)
{
    const std::string directory = file.directory.substr(0, file.directory.size() - 1);
    std::error_code error;
    if (!service.unit.is_state_directory(directory) || !fs::is_symlink(directory, error))
        return false;
    const std::string target = fs::canonical(directory, error);
    findings.error(file.line, directory, " is a symbolic link, so systemd does not start the ",
                   "service (238/STATE_DIRECTORY); rm ", directory, " && mkdir ", directory,
                   " && mount --bind ", target, ' ', directory,
                   ", and add the mount to /etc/fstab");
    return true;
}

void find_denied(const OutputFile& file, const DaemonUser& user, int error, Findings& findings)
{
    const std::string& directory = file.directory;
    const std::string closed = user.closed_directory(directory);
    if (error == ENOTDIR)
        findings.error(file.line, directory, " is not a directory; name another");
    else if (error == EROFS)
        findings.error(file.line, directory,
                       " is read-only; restart the daemon if its unit has been changed to allow "
                       "the directory, otherwise mount -o remount,rw, or name another directory");
    else if (!closed.empty() && closed + '/' != directory)
        findings.error(file.line, directory, " cannot be reached by the user ", user.name(),
                       ", who may not enter ", closed, "; chmod a+x ", closed,
                       ", or name a directory elsewhere");
    else if (directory == std::string(limits::LOG_DIRECTORY) + '/')
        findings.error(file.line, directory, " cannot be written by the user ", user.name(), ": ",
                       std::strerror(error), "; chgrp ", user.group(), ' ', directory,
                       " && chmod g+rwx ", directory, ", or delete log.file");
    else
        findings.error(file.line, directory, " cannot be written by the user ", user.name(), ": ",
                       std::strerror(error), "; chown ", user.name(), ' ', directory,
                       " && chmod 750 ", directory,
                       " if only the daemon uses it, otherwise name another directory");
}

void find_forbidden(const OutputFile& file, bool hidden, Findings& findings)
{
    findings.error(file.line, "the service's unit does not let it ", hidden ? "see " : "write to ",
                   file.directory,
                   "; run systemctl edit voxstat, add [Service] ReadWritePaths=", file.directory,
                   home_remedy(file.directory), ", and restart it");
}

// in_view: this process sees the file system as the running daemon does.
void check_directory(const OutputFile& file, const DaemonUser& user, const Service& service,
                     bool in_view, Findings& findings)
{
    if (find_link(file, service, findings))
        return;
    if (is_below(file.directory, {"/tmp/", "/var/tmp/"}) && service.unit.has_private_tmp())
        findings.warning(file.line, "the packaged service has a private /tmp and /var/tmp, which ",
                         "are deleted when it stops; name a directory elsewhere");
    struct stat info {};
    const ServiceUnit::Access allowed = service.unit.access(file.directory);
    const bool hidden = allowed == ServiceUnit::Access::HIDDEN;
    const bool missing = stat(file.directory.c_str(), &info) != 0 && errno == ENOENT;
    if (missing && !(hidden && in_view))
        find_missing(file, user, findings);
    const int error = user.access(file.directory, W_OK | X_OK);
    if (allowed != ServiceUnit::Access::WRITABLE && (error != 0 || !in_view))
        find_forbidden(file, hidden, findings);
    else if (missing)
        return;
    else if (error != 0 && (in_view || !service.unit.is_state_directory(file.directory)))
        find_denied(file, user, error, findings);
    else if (error == 0 && user.access(file.directory, R_OK) != 0)
        findings.warning(file.line, file.directory, " cannot be listed by the user ", user.name(),
                         ", so the daemon deletes no archives; chmod a+r ", file.directory);
}

// The lines of two daemons would mix, and each would rename the other's file.
void find_other_writer(const OutputFile& file, const Service& service, Findings& findings)
{
    if (!service.daemon && !service.unit.is_installed())
        return;  // the one that runs may be the one that the configuration is for
    for (const Process& process : Process::all()) {
        if (!process.is_daemon() || (service.daemon && process.id() == service.daemon->id()))
            continue;
        if (process.has_open(file.path()))
            findings.error(file.line, "another daemon, process ", process.id(), ", also writes ",
                           file.path(), "; give each daemon its own directory");
    }
}

// A file may belong to another user, for example after a trial run as root.
void check_file(const OutputFile& file, const DaemonUser& user, Findings& findings)
{
    const std::string path = file.path();
    if (user.access(file.directory, W_OK | X_OK) != 0 || access(path.c_str(), F_OK) != 0)
        return;
    const int error = fs::is_directory(path) ? EISDIR : user.access(path, W_OK);
    if (error != 0)
        findings.error(file.line, path, " cannot be written by the user ", user.name(), ": ",
                       std::strerror(error), "; move it away, or chown ", user.name(), ' ', path);
}

struct Need {
    const OutputFile* first;  // the first file of the disk
    std::uint64_t bytes = 0;  // by which its files may still grow
};

void check_space(const Need& need, Findings& findings)
{
    struct statvfs space {};
    const OutputFile& file = *need.first;
    if (statvfs(file.directory.c_str(), &space) != 0)
        return;
    const std::uint64_t free = std::uint64_t{space.f_bavail} * space.f_frsize;
    if (free == 0 || (space.f_files > 0 && space.f_favail == 0))
        findings.error(file.line, "no space is left at ", file.directory, ", so the daemon loses ",
                       "every block; free space on this disk");
    else if (free < need.bytes)
        findings.warning(file.line, free / MIB, " MiB are free at ", file.directory,
                         ", but the files may grow by ", need.bytes / MIB,
                         " MiB; a full disk loses data without a message: free space, or lower ",
                         "max_archived_files_rtp");
}

}  // namespace

void check_disks(const Settings& settings, const DaemonUser& user, const Service& service,
                 Findings& findings)
{
    const std::vector<OutputFile> files = output_files(settings);
    for (const OutputFile& file : files)
        find_other_writer(file, service, findings);
    const MountView view(service.daemon);
    std::string checked;
    std::map<dev_t, Need> needs;
    for (const OutputFile& file : files) {
        if (!file.directory.starts_with('/'))
            continue;  // somewhere below the daemon's working directory, not this process's
        if (file.directory != checked)
            check_directory(file, user, service, view.entered(), findings);
        checked = file.directory;
        check_file(file, user, findings);
        struct stat info {};
        if (stat(file.directory.c_str(), &info) == 0)
            needs.try_emplace(info.st_dev, Need{&file}).first->second.bytes += file.growth();
    }
    for (const auto& [disk, need] : needs)
        check_space(need, findings);
}
