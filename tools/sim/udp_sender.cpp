#include "tools/sim/udp_sender.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

SendCounts& SendCounts::operator+=(const SendCounts& other)
{
    datagrams += other.datagrams;
    bytes += other.bytes;
    refused += other.refused;
    no_buffer += other.no_buffer;
    failed += other.failed;
    return *this;
}

UdpSender::UdpSender(std::uint16_t port) : _socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    if (_socket == -1)
        throw std::system_error(errno, std::generic_category(), "socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        const int err = errno;
        close(_socket);
        throw std::system_error(err, std::generic_category(), "connect");
    }
}

UdpSender::~UdpSender()
{
    close(_socket);
}

void UdpSender::send(std::string_view datagram)
{
    if (::send(_socket, datagram.data(), datagram.size(), 0) != -1) {
        _counts.datagrams++;
        _counts.bytes += datagram.size();
    } else if (errno == ECONNREFUSED) {
        _counts.refused++;
    } else if (errno == ENOBUFS || errno == EAGAIN) {
        _counts.no_buffer++;
    } else {
        _counts.failed++;
    }
}
