#include "tools/check/service.h"

#include <cstdint>

#include "tools/check/daemon_user.h"
#include "tools/check/settings.h"
#include "tools/check/udp_socket.h"

Service Service::find(const Settings& settings, const DaemonUser& user)
{
    Service service{ServiceUnit(user.name()), std::nullopt};
    const auto socket = UdpSocket::at(static_cast<std::uint16_t>(settings.number(keys::QOS_PORT)));
    const std::optional<Process> owner = socket ? socket->owner() : std::nullopt;
    service.daemon = owner && owner->is_daemon() ? owner : service.unit.main_process();
    return service;
}
