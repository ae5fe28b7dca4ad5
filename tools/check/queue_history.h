// Records, from run to run, when a receive queue dropped datagrams. The kernel only keeps a total
// since the start of the daemon.
#pragma once

#include <ctime>
#include <string>

struct UdpSocket;

// Returns how many datagrams this daemon's socket has dropped since a time (seconds since the
// epoch), as far as earlier runs with this file show. Adds the current total to the file and
// removes what later runs do not need. Throws std::runtime_error if the file cannot be written.
unsigned long dropped_since(time_t since, const std::string& path, pid_t daemon,
                            const UdpSocket& socket);
