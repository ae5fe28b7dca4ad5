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

#include "config/limits.h"
#include "tools/check/daemon_user.h"
#include "tools/check/findings.h"
#include "tools/check/output_file.h"
#include "tools/check/settings.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* PACKAGE_USER = "voxstat";
constexpr const char* PACKAGE_DIRECTORY = "/var/lib/voxstat/";
constexpr std::uint64_t MIB = 1048576;

std::string parent_of(const std::string& directory)  // which ends in a slash
{
    return fs::absolute(directory).parent_path().parent_path();
}

// The daemon makes the last component only, and with a mode that keeps everybody else out.
void find_missing(const OutputFile& file, const DaemonUser& user, Findings& findings)
{
    const std::string parent = parent_of(file.directory);
    const std::string remedy =
        "; make it: install -d -o " + user.name() + " -m 750 " + file.directory;
    std::error_code ignored;
    if (!fs::is_directory(parent, ignored))
        findings.error(file.line, file.directory, " is missing and cannot be made, since ", parent,
                       " is missing too", remedy);
    else if (user.access(parent, W_OK | X_OK) != 0)
        findings.error(file.line, file.directory, " is missing and cannot be made by the user ",
                       user.name(), remedy);
    else
        findings.warning(file.line, file.directory, " is missing; the daemon would make it with ",
                         "mode 0744, so that nobody else could enter", remedy);
}

bool is_below(const std::string& directory, std::initializer_list<std::string_view> places)
{
    return std::any_of(places.begin(), places.end(),
                       [&](std::string_view place) { return directory.starts_with(place); });
}

// The packaged service sees most of the machine read-only or not at all; only from inside can one
// look whether its unit allows the directory.
void find_confined(const OutputFile& file, const DaemonUser& user, Findings& findings)
{
    const std::string& directory = file.directory;
    if (user.name() != PACKAGE_USER || !directory.starts_with('/') ||
        directory.starts_with(PACKAGE_DIRECTORY) ||
        directory == std::string(limits::LOG_DIRECTORY) + '/')
        return;
    if (is_below(directory, {"/tmp/", "/var/tmp/"}))
        findings.warning(file.line, "the packaged service has a /tmp and a /var/tmp of its own, ",
                         "which vanish when it stops; write a directory elsewhere");
    else if (geteuid() == 0)
        findings.note(file.line, "the packaged service may write to ", directory,
                      " only if its unit allows it; systemctl edit voxstat, [Service] ",
                      "ReadWritePaths=", directory,
                      is_below(directory, {"/home/", "/root/"}) ? " and ProtectHome=no" : "");
}

void check_directory(const OutputFile& file, const DaemonUser& user, Findings& findings)
{
    find_confined(file, user, findings);
    struct stat info {};
    if (stat(file.directory.c_str(), &info) != 0 && errno == ENOENT) {
        find_missing(file, user, findings);
        return;
    }
    const int error = user.access(file.directory, W_OK | X_OK);
    if (error == EROFS)
        findings.error(file.line, file.directory,
                       " is read-only; under systemd allow it: systemctl ",
                       "edit voxstat, [Service] ReadWritePaths=", file.directory);
    else if (error == ENOTDIR)
        findings.error(file.line, file.directory, " is no directory; write another");
    else if (const std::string parent = parent_of(file.directory); user.access(parent, X_OK) != 0)
        findings.error(file.line, file.directory, " cannot be reached by the user ", user.name(),
                       ", who may not enter ", parent, "; write a directory elsewhere");
    else if (error != 0)
        findings.error(file.line, file.directory, " cannot be written by the user ", user.name(),
                       ": ", std::strerror(error), "; chown ", user.name(), ' ', file.directory,
                       " if it is for the daemon alone, otherwise write another directory");
}

// A file that somebody else has made, by a trial run as root for example, is as bad as none.
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
    std::uint64_t bytes = 0;  // that its files may still grow by
};

void check_space(const Need& need, Findings& findings)
{
    struct statvfs space {};
    if (statvfs(need.first->directory.c_str(), &space) != 0)
        return;
    const std::uint64_t free = std::uint64_t{space.f_bavail} * space.f_frsize;
    if (free < need.bytes)
        findings.warning(need.first->line, "there are ", free / MIB, " MiB free at ",
                         need.first->directory, ", and the files may grow by ", need.bytes / MIB,
                         " MiB; a full disk loses data without a message: make room, or lower ",
                         "max_archived_files_rtp");
}

}  // namespace

void check_disks(const Settings& settings, const DaemonUser& user, Findings& findings)
{
    const std::vector<OutputFile> files = output_files(settings);
    std::string checked;
    std::map<dev_t, Need> needs;
    for (const OutputFile& file : files) {
        if (file.directory != checked)
            check_directory(file, user, findings);
        checked = file.directory;
        check_file(file, user, findings);
        struct stat info {};
        if (stat(file.directory.c_str(), &info) == 0)
            needs.try_emplace(info.st_dev, Need{&file}).first->second.bytes += file.growth();
    }
    for (const auto& [disk, need] : needs)
        check_space(need, findings);
}
