#include "unit/harness.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

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

bool eventually(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
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

void send_udp(int port, const std::string& datagram, unsigned host)
{
    static const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = {
        AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK - 1 + host)}, {}};
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

std::string printed(const std::function<void()>& action)
{
    const TempDir dir;
    std::fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen((dir / "out").c_str(), "w"),
                                                     std::fclose);
    dup2(fileno(file.get()), STDOUT_FILENO);
    action();
    std::fflush(stdout);
    dup2(before, STDOUT_FILENO);
    close(before);
    return read_file(dir / "out");
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
    return bare(printed([&action] {
        action();
        DBG->dbg_write_file(false, false);
    }));
}

std::string LogCapture::bare(const std::string& log)
{
    static const std::regex decoration(R"([A-Z][a-z]{2}-\d\d \d\d:\d\d:\d\d\.\d{3}  )"
                                       R"(( ?\[[A-Z]+\]) \[0x[0-9a-f]{1,6}\])");
    const std::string text = std::regex_replace("\n" + log, decoration, "$1");
    return std::regex_replace(text, std::regex("\n\n+"), "\n").substr(1);
}
