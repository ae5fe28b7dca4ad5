// The process-wide diagnostic log.
//
// A caller never touches the disk: Log() filters the message by its group's level, formats one
// line and appends it to a bounded buffer. The thread "QoS_SimpleLogge" moves the buffer every
// 100 ms into /var/log/current/<log.file>.log, or to standard output when no file is configured.
//
// The logger's mutex is the innermost of the program: it is held for an append, for cutting a block
// and, without a log file, while the buffer is printed, but never while the file object is at work,
// which logs through this logger. So a standard output that takes nothing holds up whoever logs.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <ctime>
#include <string>
#include <string_view>

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
    // initialised. Reports failures on standard output: without lock or thread all messages go
    // there as bare text, without the file object as lines. Throws std::bad_alloc. Main thread,
    // once, before any other thread of the program exists.
    void init(ConfigFile* config);

    // Adds a group and returns its index, or -1, with the group unchanged, for null and for a group
    // too many: there is room for 64. Main thread, at start-up.
    int register_dbg_group(DebugGroup* group);

    // Logs one message through a group. Any thread. Never throws.
    // Dropped silently when the index names no group, as all do before the first is registered, or
    // when the level exceeds the group's. Until init() has ended, and after one that failed,
    // printed at once as bare text. Buffered otherwise; counted as lost when the buffer is full or
    // memory is short. After dbg_stop() it is still buffered, and never written.
    void Log(int group_index, DbgLevel level, LogPieces pieces) noexcept;
    void Log(int group_index, DbgLevel level, std::string_view text) noexcept
    {
        Log(group_index, level, LogPieces{text});
    }

    // The same through the group "DEFAULT".
    void Log(DbgLevel level, LogPieces pieces) noexcept { Log(DEFAULT_GROUP, level, pieces); }
    void Log(DbgLevel level, std::string_view text) noexcept { Log(DEFAULT_GROUP, level, text); }

    // True when Log(level, ...) would let the message through: asked before a costly text is
    // composed. Any thread.
    bool log_passes(DbgLevel level) const;

    // Stops and joins the writer thread, which writes and syncs what is left. Does nothing when
    // no thread runs. Main thread.
    void dbg_stop();

    // Thread entry; the argument is the logger. Returns null.
    static void* dbg_execute(void* logger);

    // The writer thread's body.
    void dbg_run();

    // One writer pass: whole blocks, or everything when flush_all is set or a tail is old enough.
    // Passes sync on to the file. Throws what FileObject::fobj_write throws; the block is not tried
    // again. Throws std::bad_alloc when there is no memory for the block, which stays buffered.
    // Writer thread only.
    void dbg_write_file(bool sync, bool flush_all);

    // The tag of a level: 7 characters, or "[UNKNOWN]".
    static std::string dbg_level_2_str(DbgLevel level);

private:
    SimpleLogger() = default;
    ~SimpleLogger();

    static constexpr int DEFAULT_GROUP = 0;
    static constexpr int MAX_GROUPS = 64;

    bool dbg_group_passes(int group_index, DbgLevel level) const;
    bool dbg_start_writer();
    FileObject* dbg_create_file();
    bool dbg_buffer_line(const std::string& line);
    void dbg_count_lost();
    std::string dbg_take_block(bool flush_all);
    void dbg_note_lost() noexcept;

    // An array, since threads read it without a lock while the main thread still registers groups:
    // no element ever moves, and the count tells which are there. Not owned.
    std::array<DebugGroup*, MAX_GROUPS> _groups{};
    std::atomic<int> _group_count{0};
    std::atomic<bool> _initialized{false};  // set last in init(): the writer waits for it
    pthread_t _thread{};
    // Guards _buffer and _lost; valid once _initialized. Not held while _file is at work, which
    // logs through this logger.
    pthread_mutex_t _mutex{};
    std::atomic<bool> _running{false};
    std::string _buffer;          // formatted lines not yet written
    time_t _last_write_time = 0;  // writer thread only
    int _lost = 0;                // messages refused since the last overflow note
    FileObject* _file = nullptr;  // null for standard output; lives until the process ends
    std::string _directory;
    std::string _file_name;
    std::string _extension;
};

// The process-wide pointer to the one logger, set during static initialisation. Other static
// initialisers must not log: it may not be set yet when they run.
extern SimpleLogger* const DBG;

// One line of the log: time stamp, tag, thread identifier of the caller, message.
std::string dbg_format_line(DbgLevel level, LogPieces pieces);

// Writes the message and a newline to standard output and flushes it. Any thread.
void dbg_print_line(LogPieces pieces);
