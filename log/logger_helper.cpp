#include "log/logger_helper.h"

#include "log/simple_logger.h"

void LoggerHelper::LogStr(DbgLevel level, LogPieces pieces) const noexcept
{
    DBG->Log(group->index, level, pieces);
}

void LoggerHelper::create_group(int configured_level, const std::string& name)
{
    group = new DebugGroup(dbg_level_from_config(configured_level), name);
    DBG->register_dbg_group(group);
}
