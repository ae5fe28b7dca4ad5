#include "tools/check/queue_history.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tools/check/udp_socket.h"

unsigned long dropped_since(time_t since, const std::string& path, pid_t daemon,
                            const UdpSocket& socket)
{
    std::ostringstream kept;
    const auto keep = [&](unsigned port, time_t time, unsigned long dropped) {
        kept << daemon << ' ' << port << ' ' << time << ' ' << dropped << '\n';
    };
    unsigned long before = 0, newest = 0;
    std::ifstream rows(path);
    pid_t process = 0;
    unsigned port = 0;
    unsigned long dropped = 0;
    for (time_t time = 0; rows >> process >> port >> time >> dropped;) {
        if (process != daemon || (port == socket.port && dropped > socket.dropped))
            continue;  // of an earlier daemon
        if (port == socket.port) {
            newest = std::max(newest, dropped);
            if (time <= since)
                before = std::max(before, dropped);
        }
        if (port != socket.port || time > since)
            keep(port, time, dropped);
    }
    if (before != 0)
        keep(socket.port, since, before);
    if (socket.dropped != newest)
        keep(socket.port, time(nullptr), socket.dropped);
    if (!(std::ofstream(path) << kept.str() << std::flush))
        throw std::runtime_error(path + " cannot be written; name another file with --state");
    return socket.dropped - before;
}
