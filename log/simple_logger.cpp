// Groups, filter, line layout and buffer. What writes to disk is in log_writer.cpp.
#include "log/simple_logger.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <exception>

#include "log/scoped_lock.h"
#include "log/utils.h"

namespace {

constexpr std::size_t MAX_BUFFERED = 102400;
constexpr std::size_t USUAL_DECORATION = 41;  // "Nov-14 22:13:20.123  [ERROR] [0xFFFFFF] " and "\n"
constexpr std::uintptr_t THREAD_ID_MASK = 0xFFFFFF;

}  // namespace

SimpleLogger* SimpleLogger::getInstance()
{
    static SimpleLogger logger;
    return &logger;
}

SimpleLogger::~SimpleLogger()
{
    dbg_stop();
    _group_count = 0;  // the groups themselves live until the process ends
}

int SimpleLogger::register_dbg_group(DebugGroup* group)
{
    const int index = _group_count;
    if (group == nullptr || index == MAX_GROUPS)
        return -1;
    _groups[static_cast<std::size_t>(index)] = group;
    group->index = index;
    _group_count = index + 1;  // last: from now on other threads read the element
    return index;
}

bool SimpleLogger::dbg_group_passes(int group_index, DbgLevel level) const
{
    if (group_index < 0 || group_index >= _group_count)
        return false;
    return level <= _groups[static_cast<std::size_t>(group_index)]->level;
}

bool SimpleLogger::log_passes(DbgLevel level) const
{
    return dbg_group_passes(DEFAULT_GROUP, level);
}

void SimpleLogger::Log(int group_index, DbgLevel level, LogPieces pieces) noexcept
{
    if (!dbg_group_passes(group_index, level))
        return;
    if (!_initialized) {
        dbg_print_line(pieces);
        return;
    }
    bool buffered = false;
    try {
        buffered = dbg_buffer_line(dbg_format_line(level, pieces));
    } catch (const std::exception&) {
        // No memory for the line: it is lost, like one that finds the buffer full.
    }
    if (!buffered)
        dbg_count_lost();
}

bool SimpleLogger::dbg_buffer_line(const std::string& line)
{
    const ScopedLock lock(_mutex);
    if (_buffer.size() > MAX_BUFFERED)
        return false;
    _buffer += line;
    return true;
}

void SimpleLogger::dbg_count_lost()
{
    const ScopedLock lock(_mutex);
    if (_lost < INT_MAX)  // nobody resets it when there is no file
        _lost++;
}

std::string SimpleLogger::dbg_level_2_str(DbgLevel level)
{
    switch (level) {
    case DBG_ERROR:
        return "[ERROR]";
    case DBG_WARN:
        return " [WARN]";
    case DBG_INFO:
        return " [INFO]";
    case DBG_TRACE:
        return "[TRACE]";
    case DBG_DEBUG:
        return "[DEBUG]";
    }
    return "[UNKNOWN]";
}

std::string dbg_format_line(DbgLevel level, LogPieces pieces)
{
    Utils::Stamp stamp;
    char thread_id[sizeof " [0xFFFFFF] "];
    std::snprintf(
        thread_id, sizeof thread_id, " [0x%x] ",
        static_cast<unsigned>(static_cast<std::uintptr_t>(pthread_self()) & THREAD_ID_MASK));
    std::size_t length = USUAL_DECORATION;
    for (const std::string_view piece : pieces)
        length += piece.size();
    std::string line;
    line.reserve(length);
    line.append(Utils::t_stamp(stamp)).append(" ").append(SimpleLogger::dbg_level_2_str(level));
    line.append(thread_id);
    for (const std::string_view piece : pieces)
        line += piece;
    line += '\n';
    return line;
}

// Allocates nothing: it is also where a lack of memory is reported. A failed write has nowhere left
// to be reported.
void dbg_print_line(LogPieces pieces)
{
    flockfile(stdout);
    for (const std::string_view piece : pieces)
        (void)std::fwrite(piece.data(), 1, piece.size(), stdout);
    (void)std::fputc('\n', stdout);
    (void)std::fflush(stdout);
    funlockfile(stdout);
}
