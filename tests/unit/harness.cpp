#include "unit/harness.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
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

void set_age(const std::string& path, int hours)
{
    static const auto now = std::filesystem::file_time_type::clock::now();
    std::filesystem::last_write_time(path, now - std::chrono::hours(hours));
}

std::string read_file(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

FileSizes sizes_of(const TempDir& dir)
{
    FileSizes sizes;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path))
        sizes[entry.path().filename()] = entry.is_directory() ? 0 : entry.file_size();
    return sizes;
}

std::size_t count(const std::string& text, const std::string& part)
{
    return (text.size() - replaced(text, part, "").size()) / part.size();
}

std::string replaced(std::string text, const std::string& part, const std::string& with)
{
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + with.size()))
        text.replace(at, part.size(), with);
    return text;
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
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void stop_the_clock(long at)
{
    setenv("TZ", "UTC", 1);
    Faults::self().clock_stands_at = at;
}

static sockaddr_in loopback(int port)
{
    return {AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

void send_udp(int port, const std::string& datagram, unsigned host)
{
    static const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + host);
    sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&address),
           sizeof address);
}

std::string voice_record(const std::string& payload, std::optional<std::uint32_t> length)
{
    const std::uint32_t word = htonl(length.value_or(static_cast<std::uint32_t>(payload.size())));
    return std::string(reinterpret_cast<const char*>(&word), sizeof word) +
           std::string("\xC0\x00\x02\x01\xCB\x00\x71\x05\x13\x8C\x1F\x90"
                       "\x65\x53\xF1\x00\x00\x01\xE2\x40",
                       20) +
           payload;
}

LogCapture::LogCapture(const std::string& config)
{
    ConfigFile file = config_of(config);
    (void)take([&file] {
        DBG->init(&file);
        DBG->dbg_stop();
    });
}

std::string LogCapture::take(const std::function<void()>& action)
{
    testing::internal::CaptureStdout();
    action();
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

HttpServer::HttpServer() : _socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    bind(_socket, reinterpret_cast<const sockaddr*>(&address), size);
    listen(_socket, SOMAXCONN);
    getsockname(_socket, reinterpret_cast<sockaddr*>(&address), &size);
    url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/qos";
    _acceptor = std::jthread([this] {
        for (int fd; (fd = accept4(_socket, nullptr, nullptr, SOCK_CLOEXEC)) != -1;)
            _connections.emplace_back([this, fd] { serve(fd); });
    });
}

HttpServer::~HttpServer()
{
    _stopping = true;
    shutdown(_socket, SHUT_RDWR);
    _acceptor.join();
    _connections.clear();
    close(_socket);
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
        const std::size_t end = data.find(END), at = data.find(LENGTH);
        const std::size_t length = at < end ? std::stoul(data.substr(at + LENGTH.size())) : 0;
        if (end == std::string::npos || data.size() - end - END.size() < length)
            continue;
        {
            const std::lock_guard lock(_mutex);
            _requests.push_back({data.substr(end + END.size())});
        }
        data.clear();
        const std::string answer = "HTTP/1.1 200 OK\r\n" + LENGTH + "4" + END + "fine";
        send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
    }
    close(fd);
}

std::vector<HttpServer::Request> HttpServer::requests()
{
    const std::lock_guard lock(_mutex);
    return _requests;
}
