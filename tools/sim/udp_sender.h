// Sends datagrams to one port of this machine and counts what became of them.
//
// The socket is connected, so that a port where nobody listens is noticed (a later datagram is
// refused). What the receiver's queue has no room for the kernel drops silently: it counts as sent.
#pragma once

#include <cstdint>
#include <string_view>

struct SendCounts {
    std::uint64_t datagrams = 0;  // handed to the kernel
    std::uint64_t bytes = 0;      // of these
    std::uint64_t refused = 0;    // nobody listened (ECONNREFUSED)
    std::uint64_t no_buffer = 0;  // no room to send from (ENOBUFS, EAGAIN)
    std::uint64_t failed = 0;     // any other error

    std::uint64_t lost() const { return refused + no_buffer + failed; }
    SendCounts& operator+=(const SendCounts& other);
};

class UdpSender {
public:
    // Throws std::system_error when there is no socket to be had.
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
