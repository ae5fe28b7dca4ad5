#include "net/net_receiver.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>

#include "config/config_file.h"
#include "config/keys.h"
#include "log/simple_logger.h"

NetReceiver::NetReceiver(ConfigFile* config)
{
    if (config == nullptr)
        throw std::invalid_argument("NetReceiver() invalid config file value");
    create_group(keys::LOG_NETWORK.number_in(*config), "NET");
    qos_port = static_cast<unsigned short>(keys::QOS_PORT.number_in(*config));
    voice_port = static_cast<unsigned short>(qos_port + 1);
    init_listen_port(qos_port, qos_sock);
    init_listen_port(voice_port, voice_sock);
}

NetReceiver::~NetReceiver()
{
    if (qos_sock > 0 || voice_sock > 0)
        nr_stop();
}

void NetReceiver::init_listen_port(unsigned short port, int& sock)
{
    const int created = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (created < 0)
        throw std::invalid_argument("NetReceiver() failed to create socket");
    sock = created;

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    if (bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0)
        nr_fail_port("NetReceiver() unable to bind to port: ", port);

    const int flags = fcntl(sock, F_GETFL);
    if (flags < 0 || fcntl(sock, F_SETFL, flags | O_NONBLOCK) < 0)
        nr_fail_port("NetReceiver() unable to set O_NONBLOCK to port: ", port);
    LogStr(DBG_INFO, {"NetReceiver is listening on port ", std::to_string(port)});
}

void NetReceiver::nr_fail_port(const char* what, unsigned short port)
{
    nr_log_errno(what, port, errno);
    throw std::invalid_argument("NetReceiver() fatal error...");
}

void NetReceiver::nr_log_errno(const char* what, unsigned short port, int err) const
{
    LogStr(DBG_ERROR, {what, std::to_string(port), "(errno: ", std::to_string(err), ")"});
}

void NetReceiver::init_fd_set()
{
    nfds = 0;
    fds = {};
    for (const int sock : {qos_sock, voice_sock})
        if (sock > 0)
            fds[nfds++] = {.fd = sock, .events = POLLIN, .revents = 0};
}

int NetReceiver::WaitForPackets(unsigned int timeoutMs)
{
    init_fd_set();
    const int ready = poll(fds.data(), nfds, static_cast<int>(timeoutMs));
    if (ready < 0)
        // "select()", though it is poll(): alerts match this text.
        LogStr(DBG_ERROR, {"NetReceiver select() failed: ", std::to_string(ready)});
    return ready;
}

bool NetReceiver::nr_is_readable(nfds_t entry, int sock) const
{
    return fds[entry].fd == sock && (fds[entry].revents & POLLIN) != 0;
}

int NetReceiver::ReceiveQoSPacket(char* buf, int size)
{
    if (nfds == 0 || !nr_is_readable(0, qos_sock))
        return 0;
    return receive_packet(buf, size, qos_port, qos_sock);
}

int NetReceiver::ReceiveVoicePacket(char* buf, int size)
{
    // The voice socket comes first in the set when the QoS socket is closed.
    if ((nfds == 0 || !nr_is_readable(0, voice_sock)) && !nr_is_readable(1, voice_sock))
        return 0;
    return receive_packet(buf, size, voice_port, voice_sock);
}

int NetReceiver::receive_packet(char* buf, int size, unsigned short port, int& sock)
{
    if (size < 1)
        return 0;  // no room for the zero byte
    sockaddr_in sender{};
    socklen_t sender_length = sizeof sender;
    const auto received =
        static_cast<int>(recvfrom(sock, buf, static_cast<std::size_t>(size - 1), 0,
                                  reinterpret_cast<sockaddr*>(&sender), &sender_length));
    if (received < 0) {
        const int err = errno;
        if (err != EAGAIN)
            nr_log_errno("NetReceiver() recvfrom failed on port: ", port, err);
        return received;
    }
    buf[received] = '\0';
    if (received > 0 && port == voice_port)
        LogStr(DBG_DEBUG, {">>>>> New Voice packet: ", std::to_string(received), " bytes"});
    else if (received > 0)
        LogStr(DBG_DEBUG, {">>>>> New QoS packet:\n", buf});
    return received;
}

void NetReceiver::close_port(unsigned short port, int& sock)
{
    if (sock <= 0)
        return;
    LogStr(DBG_INFO, {"NetReceiver closing port ", std::to_string(port)});
    for (nfds_t entry = 0; entry < nfds; entry++) {
        if (fds[entry].fd == sock) {
            fds[entry] = {};
            nfds--;
            break;
        }
    }
    (void)close(sock);  // nothing was written to it
    sock = 0;
}

void NetReceiver::nr_stop()
{
    close_port(qos_port, qos_sock);
    close_port(voice_port, voice_sock);
}
