// Base class of the classes that log through a group of their own.
#pragma once

#include <string>

#include "log/debug_group.h"

class LoggerHelper {
public:
    // Logs through the object's own group. Any thread. Never throws.
    void LogStr(DbgLevel level, std::string_view text) const noexcept
    {
        LogStr(level, LogPieces{text});
    }
    void LogStr(DbgLevel level, LogPieces pieces) const noexcept;

protected:
    // The deriving constructor sets and registers the group before its first LogStr.
    LoggerHelper() = default;
    explicit LoggerHelper(DebugGroup* debug_group) : group(debug_group) {}
    ~LoggerHelper() = default;

    // Creates a group whose level is the given configuration value (DBG_WARN when that names no
    // level), registers it with the logger and makes it this object's. Main thread, at start-up.
    void create_group(int configured_level, const std::string& name);

    DebugGroup* group = nullptr;  // not owned
};
