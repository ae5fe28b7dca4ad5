// Groups, filter, line layout and buffer. What writes to disk is in log_writer.cpp.
#include "log/simple_logger.h"

#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>

#include "log/scoped_lock.h"
#include "log/utils.h"

namespace {

constexpr std::size_t MAX_BUFFERED = 102400;

// Threads read the list without a lock while the main thread still registers groups at start-up:
// within the room reserved no element moves, and the count tells which are there.
constexpr std::size_t RESERVED_GROUPS = 64;

constexpr std::uintptr_t THREAD_ID_MASK = 0xFFFFFF;

}  // namespace

SimpleLogger* SimpleLogger::getInstance()
{
    static SimpleLogger logger;
    return &logger;
}

SimpleLogger::SimpleLogger()
{
    _groups.reserve(RESERVED_GROUPS);
}

SimpleLogger::~SimpleLogger()
{
    dbg_stop();
    _group_count = 0;
    // The groups live until the process ends. Kept in a list that is never destroyed, they stay
    // in somebody's hands for a leak checker too.
    static auto* const kept_groups = new std::vector<DebugGroup*>;
    kept_groups->swap(_groups);
}

int SimpleLogger::register_dbg_group(DebugGroup* group)
{
    if (group == nullptr)
        return -1;
    group->index = _group_count;
    _groups.push_back(group);
    _group_count++;
    return group->index;
}

bool SimpleLogger::dbg_group_passes(int group_index, DbgLevel level) const
{
    if (group_index < 0 || group_index >= _group_count)
        return false;
    return level <= (*(_groups.begin() + group_index))->level;
}

bool SimpleLogger::log_passes(DbgLevel level) const
{
    return dbg_group_passes(DEFAULT_GROUP, level);
}

void SimpleLogger::Log(int group_index, DbgLevel level, const std::string& text)
{
    if (!dbg_group_passes(group_index, level))
        return;
    if (!_initialized) {
        dbg_print_line(text);
        return;
    }
    const std::string line = dbg_format_line(level, text);
    const ScopedLock lock(_mutex);
    if (_buffer.size() <= MAX_BUFFERED)
        _buffer += line;
    else if (_lost < INT_MAX)  // nobody resets it when there is no file
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

std::string dbg_format_line(DbgLevel level, const std::string& text)
{
    std::array<char, sizeof " [0xFFFFFF] "> thread_id{};
    std::snprintf(
        thread_id.data(), thread_id.size(), " [0x%x] ",
        static_cast<unsigned>(static_cast<std::uintptr_t>(pthread_self()) & THREAD_ID_MASK));
    std::string line = Utils::t_stamp();
    line += ' ';
    line += SimpleLogger::dbg_level_2_str(level);
    line += thread_id.data();
    line += text;
    line += '\n';
    return line;
}

void dbg_print_line(const std::string& text)
{
    const std::string line = text + "\n";
    (void)std::fwrite(line.data(), 1, line.size(), stdout);  // nowhere left to report a failure
    (void)std::fflush(stdout);
}
