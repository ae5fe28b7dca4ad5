// Severity levels, named log groups, and the pieces of a message.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

// The pieces of a message, for example {"Closed file: ", path}. The logger joins them, so the
// caller allocates nothing: even the text of a number fits into its string object. When the logger
// has no memory, it counts the message as lost.
using LogPieces = std::initializer_list<std::string_view>;

// A smaller value is more severe. A message passes a group when its level is less than or equal
// to the group's.
enum DbgLevel : int {
    DBG_ERROR = 0,
    DBG_WARN = 1,
    DBG_INFO = 2,
    DBG_TRACE = 3,
    DBG_DEBUG = 4,
};

// The level of a configuration value. A value that is not a level counts as DBG_WARN.
constexpr DbgLevel dbg_level_from_config(int value)
{
    return value < DBG_ERROR || value > DBG_DEBUG ? DBG_WARN : static_cast<DbgLevel>(value);
}

// A named log group with a level of its own. Created with new by the class that logs through it
// and alive until the process ends: any thread may still hold a pointer to it.
struct DebugGroup {
    DebugGroup(DbgLevel group_level, std::string group_name)
        : level(group_level), name(std::move(group_name))
    {
    }

    DbgLevel level;    // the most verbose level that passes
    std::string name;  // for identification; never part of a log line
    int index = -1;    // position in the logger's list; -1 until registered
};
