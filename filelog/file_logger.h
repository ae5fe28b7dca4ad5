// File reporting: the statistics file, the session-summary file and the pcap dump of the voice
// records.
//
// The owner's thread queues with FL_Write, which only appends to a bounded buffer. The thread
// "QoS_FileLogger" moves the buffers into the files: whole 1024-byte blocks, or a short tail when
// it is old enough, when the file is due to rotate, or at the stop. A full buffer drops and
// counts; the next pass that finds data in the buffer logs the count.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "files/file_object.h"

class ConfigFile;
class QoSPacket;
class VoicePacket;

// Any other value counts as QOS_STAT_EOS.
enum Qos_Stat_Type : int {
    QOS_STAT = 0,      // statistics file: session reports
    QOS_STAT_EOS = 1,  // session-summary file: session summaries
};

class FileLogger {
public:
    // Reads the configuration, creates files, locks and writer thread. A file, lock or thread
    // that cannot be created is logged and construction completes without it.
    // Throws std::invalid_argument for a null configuration, and std::bad_alloc.
    explicit FileLogger(ConfigFile* config);

    // Destroys the files. Fixed: does not wait for the thread, since the owner has called
    // fl_stop().
    ~FileLogger();
    FileLogger(const FileLogger&) = delete;
    FileLogger& operator=(const FileLogger&) = delete;

    // Queues the statistics line of a report, or one pcap record. Returns the bytes queued, 0
    // when the buffer was full, memory was exhausted or the dump is off, -1 for an unknown event.
    // The owner's thread; waits for a write of the same kind that is under way. Never throws.
    int FL_Write(QoSPacket* packet);
    int FL_Write(VoicePacket* packet);

    // Stops the writer thread and returns after all three buffers are written and synced. May be
    // called again. The owner's thread.
    void fl_stop();

    // Thread entry; the argument is the FileLogger. Returns null.
    static void* fl_execute(void* file_logger);

    // The writer thread's body.
    void fl_run();

    // Destroys the three file objects. The writer thread must not be running.
    void fl_cleanup();

    // One write step for one file: moves the whole 1024-byte blocks of its buffer, or all of it
    // when the tail is old, the file is to rotate or force is set. sync makes the file object flush
    // it to disk. Throws what FileObject::fobj_write throws; the block is not retried. Throws
    // std::bad_alloc when there is no memory for the block, which stays buffered. Writer thread
    // only.
    void fl_write_file(Qos_Stat_Type type, bool sync, bool force);

    // The same for the voice dump; also adapts the writer's pause to the voice traffic.
    void fl_write_rtp_dump(bool sync, bool force);

private:
    static constexpr std::size_t FILE_COUNT = 3;
    static constexpr std::size_t STAT_SLOT = 0;
    static constexpr std::size_t EOS_SLOT = 1;
    static constexpr std::size_t VOICE_SLOT = 2;

    void fl_read_config(const ConfigFile& config);
    void fl_create_files();
    bool fl_init_locks();
    void fl_start();
    void fl_cleanup_archives();
    void fl_pass();
    void fl_final_flush();

    std::array<std::unique_ptr<FileObject>, FILE_COUNT> files;
    std::string stat_dir;  // ends in '/'
    std::string qos_file_name;
    std::string qos_file_name_eos;
    std::string rtp_dump_file_name;
    pthread_t writer_thread{};
    pthread_mutex_t qos_mutex{};  // guards stat_* and eos_*
    pthread_mutex_t rtp_mutex{};  // guards rtp_buf, rtp_last_write and rtp_lost
    bool locks_ready = false;     // both locks are initialised; never changed afterwards
    std::atomic<bool> writer_running{false};
    // Three sets by name, not an array: a core dump is read by these names.
    std::string stat_buf;
    time_t stat_last_write = 0;  // seconds since the epoch; 0 until the first block
    std::uint32_t stat_lost = 0;
    std::string eos_buf;
    time_t eos_last_write = 0;
    std::uint32_t eos_lost = 0;
    bool rtp_logging = true;
    std::string rtp_buf;  // bytes of pcap records
    time_t rtp_last_write = 0;
    std::uint32_t rtp_lost = 0;
    int max_buf_timeout_rtp = 0;     // seconds
    int max_length_per_sec_rtp = 0;  // bytes
    unsigned max_file_size_rtp = 0;  // bytes
    unsigned max_archived_files_rtp = 0;
    unsigned sleep_us;    // writer thread only, as idle_passes
    int idle_passes = 0;  // passes in a row, at the short pause, without voice data
};
