// The least that the daemon's receive path can cost. Like the daemon, it waits for datagrams on the
// UDP ports PORT and PORT + 1, and then reads each socket until it is empty.
//
//   bare-drain PORT                       only counts the datagrams
//   bare-drain PORT BYTES PAUSE_MS FILE   also queues BYTES bytes for each datagram; a thread
//                                         writes them to FILE every PAUSE_MS milliseconds
//
// On SIGTERM, it prints the number of datagrams and exits.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "bench/until_sigterm.h"
#include "log/scoped_lock.h"

namespace {

constexpr int WAIT_MS = 60000;
constexpr useconds_t US_PER_MS = 1000;

[[noreturn]] void fail(const char* what)
{
    std::perror(what);
    std::exit(EXIT_FAILURE);
}

// A buffer, and a thread that writes its contents to a file.
class Queue {
public:
    Queue(std::size_t bytes, useconds_t pause_us, const char* file)
        : _item(bytes, 'x'), _pause_us(pause_us),
          _fd(open(file, O_WRONLY | O_CREAT | O_APPEND, 0644))
    {
        if (_fd < 0)
            fail(file);
        _writer = std::thread(&Queue::write_until_stopped, this);
    }
    ~Queue()
    {
        _writer.join();
        close(_fd);
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    void append()
    {
        const ScopedLock lock(_mutex);
        _buffer += _item;
    }

private:
    void write_until_stopped()
    {
        while (running) {
            write_all();
            usleep(_pause_us);
        }
    }
    void write_all()
    {
        const ScopedLock lock(_mutex);
        if (!_buffer.empty() && write(_fd, _buffer.data(), _buffer.size()) < 0)
            fail("write");
        _buffer.clear();
    }

    std::string _item;
    useconds_t _pause_us;
    int _fd;
    pthread_mutex_t _mutex = PTHREAD_MUTEX_INITIALIZER;  // guards _buffer
    std::string _buffer;
    std::thread _writer;
};

int open_socket(int port)
{
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, IPPROTO_UDP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<in_port_t>(port));
    if (sock < 0 || bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0)
        fail("bare-drain");
    return sock;
}

template <typename Work>
unsigned long drain(int sock, Work work)
{
    static std::array<char, 32768> buffer;
    unsigned long count = 0;
    for (;;) {
        sockaddr_in sender{};
        socklen_t sender_length = sizeof sender;
        if (recvfrom(sock, buffer.data(), buffer.size() - 1, 0,
                     reinterpret_cast<sockaddr*>(&sender), &sender_length) <= 0)
            return count;
        work();
        count++;
    }
}

template <typename Work>
void run(int port, Work work)
{
    std::array<pollfd, 2> fds{{{.fd = open_socket(port), .events = POLLIN, .revents = 0},
                               {.fd = open_socket(port + 1), .events = POLLIN, .revents = 0}}};
    unsigned long count = 0;
    while (running) {
        if (poll(fds.data(), fds.size(), WAIT_MS) <= 0)
            continue;
        for (const pollfd& entry : fds)
            if ((entry.revents & POLLIN) != 0)
                count += drain(entry.fd, work);
    }
    std::printf("%lu\n", count);
}

}  // namespace

int main(int argc, char** argv)
{
    stop_at_sigterm();
    if (argc == 2) {
        run(std::atoi(argv[1]), [] {});
    } else if (argc == 5) {
        Queue queue(static_cast<std::size_t>(std::atoi(argv[2])),
                    static_cast<useconds_t>(std::atoi(argv[3])) * US_PER_MS, argv[4]);
        run(std::atoi(argv[1]), [&queue] { queue.append(); });
    } else {
        std::fputs("Usage: bare-drain PORT [BYTES PAUSE_MS FILE]\n", stderr);
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
