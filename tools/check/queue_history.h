// Remembers from run to run when a receive queue has dropped datagrams, which the kernel does not
// tell: it only counts since the daemon's start.
#pragma once

#include <ctime>
#include <string>

struct UdpSocket;

// How many of the datagrams that this daemon's socket has dropped count: those that no run with
// this file had seen by that time (seconds since the epoch). Adds the present count to the file,
// and removes what no later run needs. Throws std::runtime_error when the file cannot be written.
unsigned long dropped_since(time_t since, const std::string& path, pid_t daemon,
                            const UdpSocket& socket);
