// The user that the daemon runs as, and what this user may do.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

class DaemonUser {
public:
    // The user of that name; without one the package's user, or where there is none the caller.
    // Throws std::invalid_argument for a name that the machine does not have.
    explicit DaemonUser(const std::optional<std::string>& name);

    const std::string& name() const { return _name; }

    // The name of its group, or the number of one without a name.
    std::string group() const;

    // Whether this process is that user or may become it. Else it cannot tell what the user may do.
    bool can_be_asked() const;

    // 0, or the number of the error that the user would meet. 0 too when it cannot be told. Mode as
    // for access(2).
    int access(const std::string& path, int mode) const;

    // The first directory on the way to an absolute path that the user may not enter; empty if
    // there is none.
    std::string closed_directory(const std::string& path) const;

    // The same as access() for opening a UDP port on all local IPv4 addresses; the port is closed
    // again.
    int bind_udp(unsigned short port) const;

private:
    class Impersonation;  // as long as one lives, this process acts as the user

    std::string _name;
    uid_t _uid;
    gid_t _gid;
};
