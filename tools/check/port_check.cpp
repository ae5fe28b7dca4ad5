#include "tools/check/port_check.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "tools/check/daemon_user.h"
#include "tools/check/findings.h"
#include "tools/check/service.h"
#include "tools/check/settings.h"
#include "tools/check/udp_socket.h"

namespace {

void find_obstacle(std::uint16_t port, int error, std::size_t line, const DaemonUser& user,
                   const Service& service, Findings& findings)
{
    const std::optional<UdpSocket> socket = UdpSocket::at(port);
    const std::optional<Process> owner = socket ? socket->owner() : std::nullopt;
    if (owner && owner->is_daemon())  // the unit allowed it, whatever the user may do
        findings.note(line, "port ", port, " is in use by the running daemon, process ",
                      owner->id());
    else if (error == EACCES && service.unit.may_bind_low_ports())
        return;
    else if (error == EACCES)
        findings.error(line, "the user ", user.name(), " may not open port ", port,
                       ", so the daemon would exit immediately; use a port above 1023, or allow ",
                       "it in the service's unit as its comments explain");
    else
        findings.error(line, "port ", port, " cannot be opened: ", std::strerror(error),
                       owner ? " by " + owner->name() : "",
                       ", so the daemon would exit immediately; ",
                       "stop the program that \"ss -lunp\" shows, or change qos_port");
}

}  // namespace

void check_ports(const Settings& settings, const DaemonUser& user, const Service& service,
                 Findings& findings)
{
    const std::size_t line = settings.line(keys::QOS_PORT);
    const auto first = static_cast<std::uint16_t>(settings.number(keys::QOS_PORT));
    for (const std::uint16_t port : {first, static_cast<std::uint16_t>(first + 1)}) {
        const int error = user.bind_udp(port);
        if (error != 0)
            find_obstacle(port, error, line, user, service, findings);
    }
    const std::optional<UdpSocket> socket = UdpSocket::at(first);
    if (service.daemon && !socket)
        findings.warning(line, "the running daemon, process ", service.daemon->id(),
                         ", uses other ports, because ",
                         "it was started with another configuration; systemctl restart voxstat");
}
