#include "tools/check/loss_log.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <utility>

#include "tools/check/line_time.h"

namespace {

enum Counting { LINES, NUMBER, REFUSALS, POSTED_REPORTS };

struct Message {
    const char* level;  // empty: a text without time and level
    const char* text;
    Counting counting;
    const char* what;  // this and the next two describe a kind; null: same kind as the row before
    const char* lost;
    const char* remedy;
};

constexpr Message MESSAGES[] = {
    {"WARN", "QoS WRITE OVERFLOW: ", NUMBER, "text_lines", "lines for the statistics files",
     "the disk is too slow, or reports arrive too fast"},
    {"WARN", "VOICE DUMP WRITE OVERFLOW: ", NUMBER, "voice_records", "voice records for the dump",
     "raise max_length_per_sec_rtp"},
    {"WARN", "LOG FILE WRITE OVERFLOW: ", NUMBER, "log_lines", "lines of the log",
     "lower the log levels"},
    {"", "Suppressed ", NUMBER, "journal_lines", "lines of the log in the journal",
     "they may contain more losses; lower the log levels, or set log.file"},
    {"", " WebClient OVERFLOW", POSTED_REPORTS, "posted_reports", "reports that were to be posted",
     "the server is too slow; the statistics file contains them"},
    {"WARN", "WebClient OVERFLOW: ", POSTED_REPORTS, nullptr, nullptr, nullptr},
    {"ERROR", "Unable to transmitt http - curl_easy_perform failed: ", LINES, "batches_failed",
     "batches that could not be sent",
     "voxstat-check --post shows why; the statistics file contains the reports"},
    {"TRACE", "HTTP/", REFUSALS, "batches_refused", "batches that the server refused",
     "voxstat-check --post shows why; the statistics file contains the reports"},
    {"ERROR", "Failed to open ", LINES, "blocks_unopened",
     "blocks of a file that could not be opened", "free space, or correct its directory or owner"},
    {"ERROR", "Failed to retrieve file size of ", LINES, nullptr, nullptr, nullptr},
    {"ERROR", "Failed to write header to the ", LINES, nullptr, nullptr, nullptr},
    {"DEBUG", " on writing to file ", LINES, "blocks_unwritten", "blocks that could not be written",
     "free space on the disk"},
    {"ERROR", " on rotation (::rename) of ", LINES, "rotations",
     "full files that could not be renamed", "check the permissions of their directory"},
    {"ERROR", "std::bad_alloc", LINES, "allocations", "operations that failed for lack of memory",
     "add memory to the machine"},
    {"ERROR", "Failed to allocate _http_log_string", LINES, nullptr, nullptr, nullptr},
    {"ERROR", "Failed to allocate _log_string", LINES, "untyped_reports",
     "reports of an unknown type", "find out who sends them"},
    {"ERROR", "NetReceiver() recvfrom failed", LINES, "unread_datagrams",
     "datagrams that could not be read", "errno(3) explains the number in the log"},
    {"ERROR", "Unable to ", LINES, "components", "parts of the daemon that could not be started",
     "voxstat(8) explains the message in the log; restart the daemon"},
    {"ERROR", " Unable to open: ", LINES, nullptr, nullptr, nullptr},
    {"ERROR", "Failed to initialize curl handle", LINES, nullptr, nullptr, nullptr},
    {"ERROR", "curl_easy_setopt(", LINES, nullptr, nullptr, nullptr},
    {"WARN", "Dropped the rest of a voice datagram", LINES, "voice_datagram_ends",
     "ends of malformed voice datagrams", "find out who sends them"},
    {"WARN", "ignoring what follows the first 1023 characters", LINES, "report_ends",
     "ends of reports that were too long", "find out who sends them"}};

constexpr unsigned long FIRST_REFUSAL = 400;

// What follows the text; null without it. The text must begin before the first colon: what follows
// a colon may come from a report, which can contain anything.
const char* behind(const std::string& message, const char* text)
{
    const std::size_t place = message.find(text);
    return place != std::string::npos && place <= message.find(':')
               ? message.c_str() + place + std::strlen(text)
               : nullptr;
}

// For the first line of an answer, whose rest is "1.1 413 TEXT".
bool is_refusal(const char* version)
{
    const char* status = std::strchr(version, ' ');
    return status != nullptr && std::strtoul(status, nullptr, 10) >= FIRST_REFUSAL;
}

}  // namespace

LossLog::LossLog(time_t since) : _since(since)
{
    for (const Message& message : MESSAGES)
        if (message.what != nullptr)
            _kinds.push_back({message.what, message.lost, message.remedy, 0});
}

bool LossLog::add_file(const std::string& path)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        add_line(line);
    return file.eof();
}

// "Nov-25 03:12:05.123  [WARN] [0x1f2e3d] MESSAGE", or a text alone.
void LossLog::add_line(const std::string& line)
{
    const std::optional<time_t> logged = log_line_time(line);
    if (logged)
        _is_due = *logged >= _since;  // also for lines without a time that follow
    if (!_is_due)
        return;
    const std::size_t level = line.find('[') + 1, level_end = line.find(']', level);
    const std::size_t thread_end = line.find("] ", level_end + 1);
    if (!logged)
        add_message("", line);
    else if (thread_end != std::string::npos)
        add_message(line.substr(level, level_end - level), line.substr(thread_end + 2));
}

void LossLog::add_message(const std::string& level, const std::string& message)
{
    std::size_t kinds_so_far = 0;
    for (const Message& row : MESSAGES) {
        kinds_so_far += row.what != nullptr ? 1 : 0;
        const char* const rest = level == row.level ? behind(message, row.text) : nullptr;
        if (rest == nullptr)
            continue;
        unsigned long& count = _kinds[kinds_so_far - 1].count;
        const unsigned long number = std::strtoul(rest, nullptr, 10);
        if (row.counting == NUMBER)
            count += number;
        else if (row.counting == LINES || (row.counting == REFUSALS && is_refusal(rest)))
            count++;
        else if (row.counting == POSTED_REPORTS && level.empty()) {  // printed for each ...
            count++;
            _unsummed++;
        } else if (row.counting == POSTED_REPORTS) {  // ... and later their total
            count += number - std::exchange(_unsummed, 0);
        }
        return;
    }
}
