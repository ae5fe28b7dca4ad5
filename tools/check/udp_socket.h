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
    unsigned long dropped;  // datagrams that found the queue full, since the socket was made

    // The socket that holds this local port; nothing when it is free.
    static std::optional<UdpSocket> at(unsigned port);

    // The process that has it open. Without the right to look into other users' processes: the
    // daemon, when one runs as the socket's user. Nothing when neither tells.
    std::optional<Process> owner() const;
};
