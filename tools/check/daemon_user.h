// The user that the daemon runs as, and this user's permissions.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

class DaemonUser {
public:
    // Without a name: the user of the package if it exists, otherwise the caller. Throws
    // std::invalid_argument if there is no user of this name.
    explicit DaemonUser(const std::optional<std::string>& name);

    const std::string& name() const { return _name; }

    // The name of the user's group, or its number if it has no name.
    std::string group() const;

    // Whether this process is that user or root. Otherwise it cannot check the user's permissions.
    bool can_be_asked() const;

    // 0, or the error number that the user would get. Also 0 if can_be_asked() is false. The mode
    // is that of access(2).
    int access(const std::string& path, int mode) const;

    // The first directory in an absolute path that the user may not enter; empty if there is none.
    std::string closed_directory(const std::string& path) const;

    // Like access(), for opening a UDP port on all local IPv4 addresses. Closes the port again.
    int bind_udp(unsigned short port) const;

private:
    class Impersonation;  // while one exists, this process acts as the user

    std::string _name;
    uid_t _uid;
    gid_t _gid;
};
