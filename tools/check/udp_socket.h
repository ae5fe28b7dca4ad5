// The UDP sockets of this machine, as the kernel lists them.
#pragma once

#include <sys/types.h>

#include <optional>

#include "tools/check/process.h"

struct UdpSocket {
    unsigned port;
    unsigned long inode;
    uid_t user;
    unsigned long waiting;  // bytes in the receive queue, as the kernel counts them
    unsigned long
        dropped;  // datagrams dropped because the queue was full, since the socket was opened

    // The socket that is bound to this local port; nothing if the port is free.
    static std::optional<UdpSocket> at(unsigned port);

    // The process that has it open. Without permission to see the descriptors of other users'
    // processes: a daemon that runs as the socket's user, if there is one.
    std::optional<Process> owner() const;
};
