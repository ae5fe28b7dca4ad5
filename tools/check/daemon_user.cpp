#include "tools/check/daemon_user.h"

#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace {

constexpr const char* PACKAGE_USER = "voxstat";

const passwd* find_user(const std::optional<std::string>& name)
{
    if (name)
        return getpwnam(name->c_str());
    const passwd* packaged = getpwnam(PACKAGE_USER);
    return packaged != nullptr ? packaged : getpwuid(geteuid());
}

}  // namespace

// Changes only the effective identity, so that root can restore its own.
class DaemonUser::Impersonation {
public:
    explicit Impersonation(const DaemonUser& user) : _changed(geteuid() == 0 && user._uid != 0)
    {
        if (_changed && (initgroups(user._name.c_str(), user._gid) != 0 ||
                         setegid(user._gid) != 0 || seteuid(user._uid) != 0))
            throw std::runtime_error("cannot act as the user " + user._name);
    }
    ~Impersonation()
    {
        if (_changed && (seteuid(0) != 0 || setegid(0) != 0))
            std::abort();  // a mixture of two users would give wrong findings
    }
    Impersonation(const Impersonation&) = delete;
    Impersonation& operator=(const Impersonation&) = delete;

private:
    bool _changed;
};

DaemonUser::DaemonUser(const std::optional<std::string>& name)
{
    const passwd* entry = find_user(name);
    if (entry == nullptr)
        throw std::invalid_argument("unknown user: " + name.value_or("the user of this process"));
    _name = entry->pw_name;
    _uid = entry->pw_uid;
    _gid = entry->pw_gid;
}

std::string DaemonUser::group() const
{
    const struct group* entry = getgrgid(_gid);
    return entry != nullptr ? entry->gr_name : std::to_string(_gid);
}

bool DaemonUser::can_be_asked() const
{
    return geteuid() == 0 || geteuid() == _uid;
}

int DaemonUser::access(const std::string& path, int mode) const
{
    if (!can_be_asked())
        return 0;
    const Impersonation acting(*this);
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 ? 0 : errno;
}

std::string DaemonUser::closed_directory(const std::string& path) const
{
    for (std::size_t end = path.find('/', 1); end != std::string::npos;
         end = path.find('/', end + 1))
        if (std::string directory = path.substr(0, end); access(directory, X_OK) == EACCES)
            return directory;
    return "";
}

int DaemonUser::bind_udp(unsigned short port) const
{
    const Impersonation acting(*this);
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (sock < 0)
        return errno;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    const int result =
        bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
    (void)close(sock);  // nothing was sent or received
    return result;
}
