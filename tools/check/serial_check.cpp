#include "tools/check/serial_check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "config/config_file.h"
#include "tools/check/daemon_user.h"
#include "tools/check/findings.h"
#include "tools/check/mount_view.h"
#include "tools/check/service.h"
#include "tools/check/settings.h"

namespace {

constexpr std::size_t SHOWN = 5;  // characters of the serial number in a line
constexpr const char* EFFECT = ", so reports without a serial number of their own get 0; ";

std::string remedy(const std::string& path, int error, const DaemonUser& user,
                   const Service& service)
{
    const std::string closed = user.closed_directory(path);
    if (service.unit.access(path) == ServiceUnit::Access::HIDDEN)
        return "the service's unit hides it; set sn_file_path to a file elsewhere, or "
               "run systemctl edit voxstat, add [Service] ProtectHome=read-only, and restart it";
    if (error == ENOENT)
        return "mkdir -p " + std::filesystem::path(path).parent_path().string() +
               " && echo serial: ABC12 > " + path;
    if (error == EACCES && !closed.empty())
        return "chmod a+x " + closed;
    if (error == EACCES)
        return "chmod a+r " + path;
    return "set sn_file_path to a file";
}

// 0, or the error number that the daemon would get when it reads the file.
int obstacle(const std::string& path, const DaemonUser& user, const Service& service, bool in_view)
{
    struct stat info {};
    if (!in_view && service.unit.access(path) == ServiceUnit::Access::HIDDEN)
        return EACCES;
    if (stat(path.c_str(), &info) != 0)
        return errno;
    if (S_ISDIR(info.st_mode))
        return EISDIR;
    return user.access(path, R_OK);
}

}  // namespace

std::string check_serial_number(const Settings& settings, const DaemonUser& user,
                                const Service& service, Findings& findings)
{
    const MountView view(service.daemon);
    const std::string path = settings.text(keys::SN_FILE_PATH);
    const std::size_t line = settings.line(keys::SN_FILE_PATH);
    const int error = obstacle(path, user, service, view.entered());
    if (error != 0)
        findings.warning(line, path, " cannot be read by the user ", user.name(), ": ",
                         std::strerror(error), EFFECT, remedy(path, error, user, service));
    if (error != 0 || access(path.c_str(), R_OK) != 0)
        return "";
    std::string serial = ConfigFile(path, ':').getStringValue("serial", "");
    if (serial.empty())
        findings.warning(line, path, " has no serial number", EFFECT,
                         "write it as \"serial: ABC12\", with a ':' and the key in lower case");
    else if (serial.substr(0, SHOWN).find_first_of("\"\\\r") != std::string::npos)
        findings.error(line, path, " has a quote, a backslash or a carriage return in the first ",
                       SHOWN,
                       " characters of the serial number, which makes every posted batch invalid; ",
                       "write letters and digits only");
    else if (serial.find_last_not_of('\r') >= SHOWN)
        findings.warning(line, path, " has the serial number ", serial, ", but lines show ",
                         "only ", serial.substr(0, SHOWN), "; write a shorter one if you can");
    return serial;
}
