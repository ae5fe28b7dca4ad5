// The floor of the daemon's receive path: waits and drains as the daemon does, and only counts.
//
//   bare-drain PORT          counts, and that is all
//   bare-drain PORT lines    makes the C library's calls for a session report as well: below that
//                            no daemon that writes these lines can come
//
// Two non-blocking UDP sockets, on PORT and PORT + 1, a 32768-byte buffer, each socket drained
// after every wait. Prints the number of datagrams at SIGTERM.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "bench/library_calls.h"

namespace {

constexpr int WAIT_MS = 60000;

std::atomic<bool> running{true};

void stop(int /*signal_number*/)
{
    running = false;
}

int open_socket(int port)
{
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, IPPROTO_UDP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<in_port_t>(port));
    if (sock < 0 || bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        std::perror("bare-drain");
        std::exit(EXIT_FAILURE);
    }
    return sock;
}

void make_lines()
{
    const ReportTexts texts;
    const std::string report_time = print_report_time(texts);
    char* const line = print_session_line(report_time.c_str(), texts);
    std::free(print_json_line(line));
    std::free(line);
}

unsigned long drain(int sock, bool with_lines)
{
    static std::array<char, 32768> buffer;
    unsigned long count = 0;
    for (;;) {
        sockaddr_in sender{};
        socklen_t sender_length = sizeof sender;
        if (recvfrom(sock, buffer.data(), buffer.size() - 1, 0,
                     reinterpret_cast<sockaddr*>(&sender), &sender_length) <= 0)
            return count;
        if (with_lines)
            make_lines();
        count++;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fputs("Usage: bare-drain PORT [lines]\n", stderr);
        return EXIT_FAILURE;
    }
    (void)std::signal(SIGTERM, stop);
    const int port = std::atoi(argv[1]);
    const bool with_lines = argc > 2;
    std::array<pollfd, 2> fds{{{.fd = open_socket(port), .events = POLLIN, .revents = 0},
                               {.fd = open_socket(port + 1), .events = POLLIN, .revents = 0}}};
    unsigned long count = 0;
    while (running) {
        if (poll(fds.data(), fds.size(), WAIT_MS) <= 0)
            continue;
        for (const pollfd& entry : fds)
            if ((entry.revents & POLLIN) != 0)
                count += drain(entry.fd, with_lines);
    }
    std::printf("%lu\n", count);
    return EXIT_SUCCESS;
}
