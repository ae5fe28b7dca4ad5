#include "tools/check/loss_log.h"

#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

constexpr time_t ONE_DAY = 86400;

// When a line was logged: "Nov-25 03:12:05.123 ...", which names no year. 0 for other texts, such
// as further lines of a message.
time_t logged_at(const std::string& line)
{
    const time_t now = time(nullptr);
    tm fields{};
    localtime_r(&now, &fields);
    if (strptime(line.c_str(), "%b-%d %H:%M:%S", &fields) == nullptr)
        return 0;
    fields.tm_isdst = -1;
    tm last_year = fields;
    last_year.tm_year--;
    const time_t moment = mktime(&fields);
    return moment > now + ONE_DAY ? mktime(&last_year) : moment;
}

}  // namespace

LossLog::LossLog(time_t since)
    : _since(since),
      _kinds{{"QoS WRITE OVERFLOW: ", true, "lines before the statistics files",
              "the disk is too slow, or reports come too fast"},
             {"VOICE DUMP WRITE OVERFLOW: ", true, "voice records before the dump",
              "raise max_length_per_sec_rtp"},
             {"LOG FILE WRITE OVERFLOW: ", true, "lines of the log", "lower the log levels"},
             {"WebClient OVERFLOW: ", true, "reports before the posts",
              "the server is too slow; the statistics file has them"},
             {"curl_easy_perform failed: ", false, "batches on the way to the server",
              "voxstat-check --post tells why; the statistics file has them"},
             {"] Failed to open /", false, "blocks before a file that could not be opened",
              "correct its directory or owner"},
             {" on writing to file ", false, "blocks that a file refused", "make room on the disk"},
             {"Dropped the rest of a voice datagram", false, "ends of broken voice datagrams",
              "find out who sends them"},
             {"ignoring what follows the first 1023 characters", false, "ends of long reports",
              "find out who sends them"}}
{
}

bool LossLog::add(const std::string& path)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        if (logged_at(line) >= _since)
            add_line(line);
    return file.eof();
}

void LossLog::add_line(const std::string& line)
{
    for (Kind& kind : _kinds) {
        const std::size_t found = line.find(kind.text);
        if (found == std::string::npos)
            continue;
        const char* behind = line.c_str() + found + std::strlen(kind.text);
        kind.count += kind.counts_itself ? std::strtoul(behind, nullptr, 10) : 1;
    }
}
