#include "unit/harness.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <list>
#include <random>
#include <regex>
#include <sstream>

#include "log/simple_logger.h"

TempDir::TempDir()
{
    if (mkdtemp(path.data()) == nullptr)
        throw std::runtime_error("no temporary directory");
}

TempDir::~TempDir()
{
    std::filesystem::remove_all(path);
}

void write_file(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text;
}

std::string read_file(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::size_t count(const std::string& text, const std::string& part)
{
    std::size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        found++;
    return found;
}

std::string bytes(std::string hex)
{
    std::erase(hex, ' ');
    std::string result;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        result += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return result;
}

ConfigFile config_of(const std::string& text, char separator)
{
    const TempDir dir;
    write_file(dir / "cfg", text);
    return {dir / "cfg", separator};
}

bool eventually(const std::function<bool()>& condition, int seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

static sockaddr_in loopback(int port)
{
    return {AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

static int bound_socket(int type, int port)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}

int free_port_pair()
{
    std::random_device random;
    for (;;) {
        const int port = 10000 + static_cast<int>(random() % 20000);  // below the kernel's choice
        const int first = bound_socket(SOCK_DGRAM, port);
        const int second = bound_socket(SOCK_DGRAM, port + 1);
        close(first);
        close(second);
        if (first != -1 && second != -1)
            return port;
    }
}

void send_udp(int port, const std::string& datagram, unsigned host)
{
    static const int fd = bound_socket(SOCK_DGRAM, 0);
    sockaddr_in address = loopback(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + host);
    sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&address),
           sizeof address);
}

std::string voice_record(const std::string& payload, std::size_t length)
{
    const std::size_t told = length == std::string::npos ? payload.size() : length;
    const std::uint32_t word = htonl(static_cast<std::uint32_t>(told));
    return std::string(reinterpret_cast<const char*>(&word), sizeof word) +
           bytes("C0000201 CB007105 138C 1F90 6553F100 0001E240") + payload;
}

LogCapture::LogCapture(const std::string& config)
{
    testing::internal::CaptureStdout();
    ConfigFile file = config_of(config);
    DBG->init(&file);
    DBG->dbg_stop();
    testing::internal::GetCapturedStdout();
}

std::string LogCapture::take()
{
    testing::internal::CaptureStdout();
    DBG->dbg_write_file(false, false);
    return bare(testing::internal::GetCapturedStdout());
}

std::string LogCapture::bare(const std::string& log)
{
    static const std::regex decoration(R"([A-Z][a-z]{2}-\d\d \d\d:\d\d:\d\d\.\d{3}  )"
                                       R"(( ?\[[A-Z]+\]) \[0x[0-9a-f]{1,6}\])");
    const std::string text = std::regex_replace("\n" + log, decoration, "$1");
    return std::regex_replace(text, std::regex("\n\n+"), "\n").substr(1);
}

HttpServer::HttpServer() : _socket(bound_socket(SOCK_STREAM, 0))
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(_socket, reinterpret_cast<sockaddr*>(&address), &size);
    url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/qos";
    listen(_socket, SOMAXCONN);
    _acceptor = std::jthread([this] { accept_all(); });
}

HttpServer::~HttpServer()
{
    _stopping = true;
    shutdown(_socket, SHUT_RDWR);
    _acceptor.join();
    close(_socket);
}

void HttpServer::accept_all()
{
    std::list<std::jthread> connections;
    for (int fd; (fd = accept4(_socket, nullptr, nullptr, SOCK_CLOEXEC)) != -1;)
        connections.emplace_back([this, fd] { serve(fd); });
}

void HttpServer::serve(int fd)
{
    static const std::string END = "\r\n\r\n", LENGTH = "Content-Length: ";
    const timeval look_up = {.tv_sec = 0, .tv_usec = 50000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &look_up, sizeof look_up);
    std::string data;
    std::vector<char> piece(1 << 16);
    for (ssize_t n; (n = recv(fd, piece.data(), piece.size(), 0)) != 0 && !_stopping;) {
        data.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        const std::size_t end = data.find(END);
        if (end == std::string::npos)
            continue;
        const std::size_t at = data.find(LENGTH);
        const std::size_t length = at < end ? std::stoul(data.substr(at + LENGTH.size())) : 0;
        if (data.size() < end + END.size() + length)
            continue;
        {
            const std::lock_guard lock(_mutex);
            _requests.push_back({data.substr(0, end), data.substr(end + END.size(), length)});
        }
        data.clear();
        std::string text = answer == ERROR_500 ? "HTTP/1.1 500 No" : "HTTP/1.1 200 OK";
        text += "\r\n" + LENGTH + (answer == HALF ? "9" : "4") + END + "half";
        send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (answer == HALF)
            break;
    }
    close(fd);
}

std::vector<HttpServer::Request> HttpServer::requests(std::size_t first)
{
    const std::lock_guard lock(_mutex);
    return {_requests.begin() + static_cast<std::ptrdiff_t>(first), _requests.end()};
}
