// The process-wide diagnostic log.
//
// A caller never touches the disk: Log() filters the message by its group's level, formats one
// line and appends it to a bounded buffer. The thread "QoS_SimpleLogge" moves the buffer every
// 100 ms into /var/log/current/<log.file>.log, or to standard output when no file is configured.
//
// The logger's mutex is the innermost of the program: it is held for an append, for cutting a block
// and, without a log file, while the buffer is printed, but never while the file object is at work,
// which logs through this logger. So a blocked standard output blocks every thread that logs.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "log/debug_group.h"

class ConfigFile;
class FileObject;

class SimpleLogger {
public:
    // The one logger; created by the first call, destroyed at process exit. Any thread.
    static SimpleLogger* getInstance();

    SimpleLogger(const SimpleLogger&) = delete;
    SimpleLogger& operator=(const SimpleLogger&) = delete;

    // Reads log.file and log.default, registers the group "DEFAULT", starts the writer thread and
    // creates the log file object. Does nothing for a null configuration or when already
    // initialised. Reports failures on standard output. After a failure of the lock or the thread,
    // all messages go to standard output as bare text; after a failure of the file object, they go
    // there as lines. Throws std::bad_alloc. Main thread, once, before any other thread of the
    // program exists.
    void init(ConfigFile* config);

    // Adds a group and returns its index, or -1 for null. Throws std::bad_alloc. Main thread, at
    // start-up, before the threads that log through the group exist.
    int register_dbg_group(DebugGroup* group);

    // Logs one message through a group. Any thread. Never throws.
    // Drops the message silently when the index is not that of a registered group or the level
    // exceeds the group's. Prints it at once as bare text until init() has completed, and for good
    // if init() failed. Otherwise buffers it, or counts it as lost when the buffer is full or
    // memory is exhausted. After dbg_stop() it still buffers, but nothing is written.
    void Log(int group_index, DbgLevel level, LogPieces pieces) noexcept;
    void Log(int group_index, DbgLevel level, std::string_view text) noexcept
    {
        Log(group_index, level, LogPieces{text});
    }

    // The same through the group "DEFAULT".
    void Log(DbgLevel level, LogPieces pieces) noexcept { Log(DEFAULT_GROUP, level, pieces); }
    void Log(DbgLevel level, std::string_view text) noexcept { Log(DEFAULT_GROUP, level, text); }

    // Stops and joins the writer thread, which writes and syncs what is left. Does nothing when
    // no thread runs. Main thread.
    void dbg_stop();

    // Thread entry; the argument is the logger. Returns null.
    static void* dbg_execute(void* logger);

    // The writer thread's body.
    void dbg_run();

    // One writer pass: whole blocks, or everything when flush_all is set or a tail is old enough.
    // Passes sync on to the file. Throws what FileObject::fobj_write throws, and does not retry the
    // block. Throws std::bad_alloc when there is no memory for the block, which stays buffered.
    // Writer thread only.
    void dbg_write_file(bool sync, bool flush_all);

    // The tag of a level: 7 characters, or "[UNKNOWN]".
    static std::string dbg_level_2_str(DbgLevel level);

private:
    SimpleLogger() = default;
    ~SimpleLogger();

    static constexpr int DEFAULT_GROUP = 0;

    bool dbg_passes(int group_index, DbgLevel level) const;
    bool dbg_start_writer();
    FileObject* dbg_create_file();
    void dbg_report_overflow();
    std::string dbg_take_block(bool flush_all);

    // The list lives until the process ends, as the groups do, or they would count as leaks.
    std::vector<DebugGroup*>& _groups = *new std::vector<DebugGroup*>;
    // The first of them. The writers of log and files use no other, and already run while the main
    // thread registers the rest, so they must not look at the list.
    const DebugGroup* _default_group = nullptr;
    std::atomic<bool> _initialized{false};  // set last in init(): the writer waits for it
    pthread_t _thread{};
    // Guards _buffer and _lost; valid once _initialized. Not held while _file is at work, which
    // logs through this logger.
    pthread_mutex_t _mutex{};
    std::atomic<bool> _running{false};
    std::string _buffer;          // formatted lines not yet written
    time_t _last_write_time = 0;  // writer thread only
    std::uint32_t _lost = 0;      // messages lost since the last overflow note
    FileObject* _file = nullptr;  // null for standard output; lives until the process ends
    std::string _directory;
    std::string _file_name;
    std::string _extension;
};

// The process-wide pointer to the one logger, set during static initialisation. Other static
// initialisers must not log: it may not be set yet when they run.
extern SimpleLogger* const DBG;

// One line of the log: time stamp, tag, thread identifier of the caller, message. Empty when there
// is no memory for it. Any thread.
std::string dbg_format_line(DbgLevel level, LogPieces pieces) noexcept;

// Writes the message and a newline to standard output and flushes it. Any thread.
void dbg_print_line(LogPieces pieces);
