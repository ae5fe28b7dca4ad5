#include "tools/check/udp_socket.h"

#include <cstdio>
#include <fstream>
#include <string>

namespace {

// Number, local address and port, remote ones, state, queues for sending and receiving, timer,
// repetitions, user, time-out, inode, references, address in the kernel, datagrams dropped.
constexpr const char* ROW = "%*d: %*[0-9A-F]:%x %*s %*s %*x:%lx %*s %*s %u %*s %lu %*s %*s %lu";
constexpr int VALUES = 5;

}  // namespace

std::optional<UdpSocket> UdpSocket::at(unsigned port)
{
    // An IPv6 socket also receives IPv4, unless this is switched off.
    for (const char* table : {"/proc/self/net/udp", "/proc/self/net/udp6"}) {
        std::ifstream file(table);
        for (std::string row; std::getline(file, row);) {
            UdpSocket socket{};
            if (std::sscanf(row.c_str(), ROW, &socket.port, &socket.waiting, &socket.user,
                            &socket.inode, &socket.dropped) == VALUES &&
                socket.port == port)
                return socket;
        }
    }
    return std::nullopt;
}

std::optional<Process> UdpSocket::owner() const
{
    const std::string link = "socket:[" + std::to_string(inode) + ']';
    for (const Process& process : Process::all())
        for (const std::string& file : process.open_files())
            if (file == link)
                return process;
    for (const Process& process : Process::all())
        if (process.is_daemon() && process.user() == user)
            return process;
    return std::nullopt;
}
