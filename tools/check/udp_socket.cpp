#include "tools/check/udp_socket.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Columns of a row, split at blanks.
constexpr std::size_t ADDRESS = 1, QUEUES = 4, USER = 7, INODE = 9, DROPS = 12, COLUMNS = 13;
constexpr int HEXADECIMAL = 16;

// "ADDRESS:C350" or "SENT:WAITING" in hexadecimal digits
unsigned long behind_colon(const std::string& text)
{
    return std::stoul(text.substr(text.find(':') + 1), nullptr, HEXADECIMAL);
}

}  // namespace

std::optional<UdpSocket> UdpSocket::at(unsigned port)
{
    // A socket of IPv6 takes IPv4 too, unless it was told not to.
    for (const char* table : {"/proc/self/net/udp", "/proc/self/net/udp6"}) {
        std::ifstream file(table);
        for (std::string row; std::getline(file, row);) {
            std::istringstream words(row);
            const std::vector<std::string> columns{std::istream_iterator<std::string>(words), {}};
            if (columns.size() < COLUMNS || columns[ADDRESS].find(':') == std::string::npos ||
                behind_colon(columns[ADDRESS]) != port)
                continue;
            return UdpSocket{port, std::stoul(columns[INODE]),
                             static_cast<uid_t>(std::stoul(columns[USER])),
                             behind_colon(columns[QUEUES]), std::stoul(columns[DROPS])};
        }
    }
    return std::nullopt;
}

std::optional<Process> UdpSocket::owner() const
{
    const std::string link = "socket:[" + std::to_string(inode) + ']';
    for (const Process& process : Process::all())
        for (const std::string& file : process.open_files())
            if (file == link)
                return process;
    for (const Process& process : Process::all())
        if (process.is_daemon() && process.user() == user)
            return process;
    return std::nullopt;
}
