// Groups, filter, line layout and buffer. What writes to disk is in log_writer.cpp.
#include "log/simple_logger.h"

#include <cstdint>
#include <cstdio>
#include <exception>

#include "log/append_bounded.h"
#include "log/scoped_lock.h"
#include "log/utils.h"

namespace {

constexpr std::int64_t MAX_BUFFERED = 102400;
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
    _groups.clear();
    _default_group = nullptr;
}

int SimpleLogger::register_dbg_group(DebugGroup* group)
{
    if (group == nullptr)
        return -1;
    _groups.push_back(group);
    if (_default_group == nullptr)
        _default_group = group;
    group->index = static_cast<int>(_groups.size()) - 1;
    return group->index;
}

bool SimpleLogger::dbg_passes(int group_index, DbgLevel level) const
{
    const DebugGroup* group = nullptr;
    if (group_index == DEFAULT_GROUP)
        group = _default_group;
    else if (group_index > 0 && static_cast<std::size_t>(group_index) < _groups.size())
        group = _groups[static_cast<std::size_t>(group_index)];
    return group != nullptr && level <= group->level;
}

void SimpleLogger::Log(int group_index, DbgLevel level, LogPieces pieces) noexcept
{
    if (!dbg_passes(group_index, level))
        return;
    if (!_initialized) {
        dbg_print_line(pieces);
        return;
    }
    const std::string line = dbg_format_line(level, pieces);
    const ScopedLock lock(_mutex);
    if (append_bounded(_buffer, MAX_BUFFERED, {line}) == 0)
        _lost++;
}

// Without the memory for it, the note waits for the next pass.
void SimpleLogger::dbg_report_overflow()
{
    if (_lost == 0)
        return;
    const std::string note =  // no space before "messages": alerts match this text
        dbg_format_line(DBG_WARN,
                        {"LOG FILE WRITE OVERFLOW: ", std::to_string(_lost), "messages lost"});
    if (append_bounded(_buffer, INT64_MAX, {note}) > 0)
        _lost = 0;
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

std::string dbg_format_line(DbgLevel level, LogPieces pieces) noexcept
{
    char thread_id[sizeof " [0xFFFFFF] "];
    std::snprintf(
        thread_id, sizeof thread_id, " [0x%x] ",
        static_cast<unsigned>(static_cast<std::uintptr_t>(pthread_self()) & THREAD_ID_MASK));
    std::string line;
    try {
        Utils::Stamp stamp;
        line.append(Utils::t_stamp(stamp)).append(" ");
        line.append(SimpleLogger::dbg_level_2_str(level)).append(thread_id);
        for (const std::string_view piece : pieces)
            line += piece;
        line += '\n';
    } catch (const std::exception&) {
        line.clear();
    }
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
