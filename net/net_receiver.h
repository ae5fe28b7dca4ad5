// The two UDP sockets on which the voice software delivers its data: QoS reports (text) on one
// port, voice records on the next port up.
//
// Main thread only. Passes datagrams on unchanged and ignores the sender's address. QoSPacket and
// VoiceDatagram check the contents.
// Logs through the group "NET", whose level is log.network.
#pragma once

#include <poll.h>

#include <array>

#include "log/logger_helper.h"

class ConfigFile;

class NetReceiver : public LoggerHelper {
public:
    // Reads log.network and qos_port, registers the log group and opens both sockets.
    // Throws std::invalid_argument for a null configuration or a socket that cannot be opened; a
    // socket opened before then stays open, since the owner ends the process.
    explicit NetReceiver(ConfigFile* config);
    ~NetReceiver();
    NetReceiver(const NetReceiver&) = delete;
    NetReceiver& operator=(const NetReceiver&) = delete;

    // Creates a non-blocking UDP socket bound to the port on all local IPv4 addresses and stores
    // its descriptor. Throws std::invalid_argument on failure.
    void init_listen_port(unsigned short port, int& sock);

    // Rebuilds the poll set from the open sockets.
    void init_fd_set();

    // Waits until a socket has input, at most timeoutMs milliseconds. Returns the number of ready
    // sockets, 0 on time-out, negative on failure or when a signal ended the wait.
    int WaitForPackets(unsigned int timeoutMs);

    // Reads one datagram if the last wait reported the socket readable. Stores at most size - 1
    // bytes and a zero byte after them, and discards the rest of a longer datagram. Returns its
    // length, 0 for an empty datagram or nothing to read, or a negative number when the queue is
    // empty or the read failed. Call it until it returns 0 or less.
    int ReceiveQoSPacket(char* buf, int size);
    int ReceiveVoicePacket(char* buf, int size);

    // The read that both functions share.
    int receive_packet(char* buf, int size, unsigned short port, int& sock);

    // Closes one socket if it is open and takes it out of the poll set.
    void close_port(unsigned short port, int& sock);

    // Closes the QoS socket, then the voice socket. May be called again.
    void nr_stop();

private:
    bool nr_is_readable(nfds_t entry, int sock) const;
    [[noreturn]] void nr_fail_port(const char* what, unsigned short port);
    void nr_log_errno(const char* what, unsigned short port, int err) const;

    unsigned short qos_port = 0;
    int qos_sock = 0;  // 0: no socket
    unsigned short voice_port = 0;
    int voice_sock = 0;  // 0: no socket
    std::array<pollfd, 2> fds{};
    nfds_t nfds = 0;  // entries of fds in use
};
