#include "tools/check/process.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

namespace {

constexpr const char* DAEMON_NAME = "voxstat";
constexpr std::int64_t MS_PER_SECOND = 1000, NS_PER_MS = 1000000;
constexpr int START_TIME = 19;  // index in "stat" of the words after the name

std::string directory(pid_t id)
{
    return "/proc/" + std::to_string(id) + '/';
}

std::int64_t milliseconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * MS_PER_SECOND + now.tv_nsec / NS_PER_MS;
}

std::string link_target(const fs::path& link)
{
    std::error_code error;
    return fs::read_symlink(link, error);
}

}  // namespace

std::vector<Process> Process::all()
{
    std::vector<Process> found;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc"))
        if (const int number = std::atoi(entry.path().filename().c_str()); number > 0)
            found.emplace_back(number);
    return found;
}

std::string Process::read(const std::string& file) const
{
    std::ifstream stream(directory(_id) + file);
    std::string line;
    std::getline(stream, line);
    return line;
}

std::string Process::name() const
{
    return read("comm");
}

bool Process::is_daemon() const
{
    return name() == DAEMON_NAME;
}

uid_t Process::user() const
{
    struct stat info {};
    return stat(directory(_id).c_str(), &info) == 0 ? info.st_uid : static_cast<uid_t>(-1);
}

time_t Process::started() const
{
    const std::string line = read("stat");
    std::istringstream words(line.substr(line.rfind(')') + 1));
    std::string word;
    for (int i = 0; i <= START_TIME; i++)
        words >> word;
    // From the boot to the start of the process. After 249 days they exceed 31 bits.
    const std::int64_t ticks = std::atoll(word.c_str());
    return (milliseconds(CLOCK_REALTIME) - milliseconds(CLOCK_BOOTTIME) +
            ticks * MS_PER_SECOND / sysconf(_SC_CLK_TCK)) /
           MS_PER_SECOND;
}

std::vector<std::string> Process::open_files() const
{
    std::vector<std::string> targets;
    std::error_code error;
    for (fs::directory_iterator entry(directory(_id) + "fd", error), end; !error && entry != end;
         entry.increment(error))
        targets.push_back(link_target(entry->path()));
    return targets;
}

bool Process::has_open(const std::string& path) const
{
    std::error_code error;
    for (fs::directory_iterator entry(directory(_id) + "fd", error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code other;  // of sockets and the like
        if (fs::equivalent(entry->path(), path, other))
            return true;
    }
    return false;
}

std::vector<std::string> Process::environment() const
{
    std::vector<std::string> found;
    std::ifstream stream(directory(_id) + "environ");
    for (std::string setting; std::getline(stream, setting, '\0');)
        found.push_back(setting);
    return found;
}

std::string Process::standard_output() const
{
    return link_target(directory(_id) + "fd/1");
}
