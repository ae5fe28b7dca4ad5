#include "tools/check/line_time.h"

#include <endian.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <vector>

#include "config/limits.h"
#include "tools/check/output_file.h"

namespace {

constexpr time_t ONE_DAY = 86400;
constexpr std::streamoff TAIL = 65536;  // bytes; longer than any line
constexpr std::size_t MILLISECONDS = sizeof ".247 " - 1;
constexpr std::streamsize DUMP_HEADER = 24;
constexpr std::uint32_t SNAPSHOT_LENGTH = 65535;
constexpr std::uint32_t US_PER_SECOND = 1000000;

// "2026-Nov-24 19:33:53.247 +0000 ..."
std::optional<time_t> text_line_time(const std::string& line)
{
    tm fields{};
    const char* behind = strptime(line.c_str(), "%Y-%b-%d %H:%M:%S", &fields);
    if (behind == nullptr || std::strlen(behind) < MILLISECONDS ||
        strptime(behind + MILLISECONDS, "%z", &fields) == nullptr)
        return std::nullopt;
    const long offset = fields.tm_gmtoff;  // timegm() resets it
    return timegm(&fields) - offset;
}

template <typename TimeOfLine>
std::optional<time_t> last_in_text(const std::string& path, TimeOfLine time_of)
{
    std::ifstream file(path, std::ios::ate);
    file.seekg(std::max<std::streamoff>(0, file.tellg() - std::streampos(TAIL)));
    std::optional<time_t> last;
    for (std::string line; std::getline(file, line);)
        if (const std::optional<time_t> time = time_of(line))
            last = time;
    return last;
}

// A dump cannot be searched from its end: only its record headers lead to the next record. It is
// read through, because a seek discards what the stream has read ahead.
std::optional<time_t> last_in_dump(const std::string& path)
{
    struct {
        std::uint32_t seconds, microseconds, length, length_on_wire;
    } record{};
    std::ifstream file(path, std::ios::binary);
    file.ignore(DUMP_HEADER);
    std::optional<time_t> last;
    while (file.read(reinterpret_cast<char*>(&record), sizeof record)) {
        record.length = le32toh(record.length);
        if (le32toh(record.microseconds) >= US_PER_SECOND || record.length > SNAPSHOT_LENGTH)
            break;  // a block before it was lost
        last = le32toh(record.seconds);
        file.ignore(record.length);
    }
    return last;
}

}  // namespace

std::optional<time_t> log_line_time(const std::string& line)
{
    const time_t now = time(nullptr);
    tm fields{};
    localtime_r(&now, &fields);
    if (strptime(line.c_str(), "%b-%d %H:%M:%S", &fields) == nullptr)
        return std::nullopt;
    fields.tm_isdst = -1;
    tm last_year = fields;
    last_year.tm_year--;
    const time_t moment = mktime(&fields);
    return moment > now + ONE_DAY ? mktime(&last_year) : moment;
}

std::optional<time_t> last_line_time(const OutputFile& file)
{
    std::vector<std::string> paths = file.archives();
    std::sort(paths.begin(), paths.end());
    paths.push_back(file.path());
    std::optional<time_t> last;
    while (!last && !paths.empty()) {
        if (file.extension == limits::DUMP_EXTENSION)
            last = last_in_dump(paths.back());
        else if (file.extension == limits::LOG_EXTENSION)
            last = last_in_text(paths.back(), log_line_time);
        else
            last = last_in_text(paths.back(), text_line_time);
        paths.pop_back();
    }
    return last;
}
