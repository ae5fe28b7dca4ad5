// The part of the logger that reads its configuration and writes to disk.
#include "log/simple_logger.h"

#include <unistd.h>

#include <exception>

#include "config/config_file.h"
#include "config/keys.h"
#include "config/limits.h"
#include "files/file_object.h"
#include "log/guarded.h"
#include "log/scoped_lock.h"

namespace {

constexpr std::size_t BUFFER_RESERVATION = 10240;
constexpr time_t TAIL_TIMEOUT_SECONDS = 5;
constexpr useconds_t SLEEP_US = 100000;

// The kernel refuses names over 15 characters, so "QoS_SimpleLogger" is cut.
constexpr const char* THREAD_NAME = "QoS_SimpleLogge";

// These steps set up or write the log itself, so the reason goes to standard output.
void print_reason(const char* reason)
{
    dbg_print_line({reason});
}

}  // namespace

void SimpleLogger::init(ConfigFile* config)
{
    if (_initialized || config == nullptr)
        return;
    _file_name = keys::LOG_FILE.text_in(*config);
    _extension = limits::LOG_EXTENSION;
    register_dbg_group(
        new DebugGroup(dbg_level_from_config(keys::LOG_DEFAULT.number_in(*config)), "DEFAULT"));
    _buffer.reserve(BUFFER_RESERVATION);
    if (!dbg_start_writer())
        return;
    _file = dbg_create_file();
    if (_file != nullptr)
        Log(DBG_INFO, {"Initialized logging. File name: ", _directory, _file_name, _extension});
    _initialized = true;
    _initialized.notify_all();
}

bool SimpleLogger::dbg_start_writer()
{
    int rc = pthread_mutex_init(&_mutex, nullptr);
    if (rc != 0) {
        dbg_print_line({"Unable to init mutex for SimpleLogger. Error: ", std::to_string(rc)});
        return false;
    }
    _running = true;  // before the thread exists, so that an early dbg_stop() still stops it
    rc = pthread_create(&_thread, nullptr, dbg_execute, this);
    if (rc != 0) {
        _running = false;  // nothing to join
        dbg_print_line(
            {"Unable to create new thread for SimpleLogger. Error: ", std::to_string(rc)});
        return false;
    }
    (void)pthread_setname_np(_thread, THREAD_NAME);  // for display only
    return true;
}

FileObject* SimpleLogger::dbg_create_file()
{
    if (_file_name.empty())
        return nullptr;
    _directory = std::string(limits::LOG_DIRECTORY) + '/';
    try {
        return new FileObject(nullptr, 0, _directory, _file_name, _extension, limits::LOG_FILE_SIZE,
                              limits::LOG_ARCHIVES);
    } catch (const std::exception& error) {
        // No space before "for": alerts match this text.
        dbg_print_line({"Unable to open log file ", _directory, _file_name, _extension,
                        "for writing (", error.what(), "). Using stdout instead."});
        return nullptr;
    }
}

void SimpleLogger::dbg_stop()
{
    if (_running.exchange(false))
        pthread_join(_thread, nullptr);
}

void* SimpleLogger::dbg_execute(void* logger)
{
    if (logger != nullptr)
        static_cast<SimpleLogger*>(logger)->dbg_run();
    return nullptr;
}

void SimpleLogger::dbg_run()
{
    _initialized.wait(false);  // init() creates the file object after this thread
    if (_file != nullptr)
        guarded([this] { _file->fobj_cleanup(); }, print_reason);
    while (_running) {
        guarded([this] { dbg_write_file(false, false); }, print_reason);
        usleep(SLEEP_US);
    }
    Log(DBG_INFO, "Terminating SimpleLogger thread...");
    guarded([this] { dbg_write_file(true, true); }, print_reason);
}

void SimpleLogger::dbg_write_file(bool sync, bool flush_all)
{
    const std::string block = dbg_take_block(flush_all);
    if (block.empty())
        return;
    // A failed write is reported by the file object; the block is not retried.
    (void)_file->fobj_write(block, sync);
    _last_write_time = time(nullptr);
}

// Cuts the next block off the buffer; empty when nothing is due, or when there is no file and the
// buffer went to standard output.
std::string SimpleLogger::dbg_take_block(bool flush_all)
{
    const ScopedLock lock(_mutex);
    if (_buffer.empty())
        return "";
    if (_file == nullptr) {
        dbg_print_line({_buffer});
        _buffer.clear();
        return "";
    }
    dbg_report_overflow();
    return _file->fobj_take_block(_buffer, _last_write_time, TAIL_TIMEOUT_SECONDS, flush_all);
}
