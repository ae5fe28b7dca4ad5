// Sends datagrams to a port of this machine and counts the results.
//
// The socket is connected, so a later datagram is refused if no program listens on the port. A
// datagram that the kernel drops because the receive queue is full counts as sent.
#pragma once

#include <cstdint>
#include <string_view>

struct SendCounts {
    std::uint64_t datagrams = 0;  // handed to the kernel
    std::uint64_t bytes = 0;      // of these
    std::uint64_t refused = 0;    // no program listened (ECONNREFUSED)
    std::uint64_t no_buffer = 0;  // no send buffer (ENOBUFS, EAGAIN)
    std::uint64_t failed = 0;     // any other error

    std::uint64_t lost() const { return refused + no_buffer + failed; }
    SendCounts& operator+=(const SendCounts& other);
};

class UdpSender {
public:
    // Throws std::system_error if no socket can be opened.
    explicit UdpSender(std::uint16_t port);
    ~UdpSender();
    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;

    void send(std::string_view datagram);
    const SendCounts& counts() const { return _counts; }

private:
    int _socket;
    SendCounts _counts;
};
