#include "filelog/file_logger.h"

#include <unistd.h>

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string_view>

#include "config/config_file.h"
#include "config/keys.h"
#include "config/limits.h"
#include "log/append_bounded.h"
#include "log/guarded.h"
#include "log/scoped_lock.h"
#include "log/simple_logger.h"
#include "records/qos_packet.h"
#include "records/voice_packet.h"

namespace {

// Column headers: each label ends where its column of the lines below ends.
constexpr std::string_view QOS_STAT_HEADER =
    "       Date         Time    TZ      GCID         TID     Type      Far_End_IP  Port Packets "
    "Lost Lost% Jitter   RTT       SSRC    SN RTCP_CNAME\n";
constexpr std::string_view QOS_EOS_HEADER =
    "       Date         Time    TZ      GCID         TID     Type      Far_End_IP  Port  Span "
    "Packets Lost Lost% JTRAvg JTRMax RTTAvg RTTMax First Packet Last  Packet       SSRC    SN "
    "RTCP_CNAME\n";
static_assert(QOS_STAT_HEADER.size() == 144 && QOS_EOS_HEADER.size() == 191);

// The global header of the pcap file format, little-endian.
constexpr char PCAP_FILE_HEADER_BYTES[] = {
    '\xD4', '\xC3', '\xB2', '\xA1',  // magic number: time stamps in microseconds
    2,      0,      4,      0,       // version 2.4
    0,      0,      0,      0,       // time-zone correction
    0,      0,      0,      0,       // accuracy of time stamps
    '\xFF', '\xFF', 0,      0,       // snapshot length 65535
    1,      0,      0,      0,       // link type Ethernet
};
constexpr std::string_view PCAP_FILE_HEADER(PCAP_FILE_HEADER_BYTES, sizeof PCAP_FILE_HEADER_BYTES);

constexpr time_t STAT_TAIL_TIMEOUT_SECONDS = 30;
constexpr time_t EOS_TAIL_TIMEOUT_SECONDS = 60;
constexpr std::int64_t MAX_QOS_BUFFERED = 102400;
constexpr unsigned LONG_PAUSE_US = 100000;  // while no voice data flows
constexpr unsigned SHORT_PAUSE_US = 10000;
constexpr int IDLE_PASSES_LIMIT = 499;
constexpr std::size_t BUFFER_RESERVATION = 10240;

void log_reason(const char* reason)
{
    DBG->Log(DBG_ERROR, reason);
}

// Null, with a message, when it cannot be created. The message has the default name: alerts match
// it.
std::unique_ptr<FileObject> create_file(std::string_view header, const std::string& directory,
                                        const std::string& name, const char* default_name,
                                        const char* extension, unsigned max_size,
                                        unsigned max_archives)
{
    try {
        return std::make_unique<FileObject>(header.data(), static_cast<int>(header.size()),
                                            directory, name, extension, max_size, max_archives);
    } catch (const std::exception& error) {
        DBG->Log(DBG_ERROR, {directory, default_name, " Unable to open: ", error.what()});
        return nullptr;
    }
}

// Queues a record, or counts it as lost. Returns the bytes queued.
int queue_record(std::string& buffer, std::int64_t cap, std::uint32_t& lost,
                 std::initializer_list<std::string_view> pieces)
{
    const std::size_t queued = append_bounded(buffer, cap, pieces);
    if (queued == 0)
        lost++;
    return static_cast<int>(queued);
}

// Logs and clears a count of lost messages.
void report_overflow(const char* what, std::uint32_t& lost)
{
    if (lost == 0)
        return;
    // No space before "messages": alerts match this text.
    DBG->Log(DBG_WARN, {what, std::to_string(lost), "messages lost"});
    lost = 0;
}

// Takes the data that is due from a buffer. Without a file, drops all data.
std::string take_block(const FileObject* file, std::string& buffer, time_t last_write,
                       time_t tail_timeout, bool force)
{
    if (file != nullptr)
        return file->fobj_take_block(buffer, last_write, tail_timeout, force);
    buffer.clear();
    return "";
}

}  // namespace

FileLogger::FileLogger(ConfigFile* config) : sleep_us(LONG_PAUSE_US)
{
    if (config == nullptr)
        throw std::invalid_argument("FileLogger() invalid config file value");
    fl_read_config(*config);
    fl_create_files();
    if (!fl_init_locks())
        return;
    for (std::string* buffer : {&stat_buf, &eos_buf, &rtp_buf})
        buffer->reserve(BUFFER_RESERVATION);
    fl_start();
}

FileLogger::~FileLogger()
{
    writer_running = false;
    fl_cleanup();
}

void FileLogger::fl_read_config(const ConfigFile& config)
{
    stat_dir = keys::QOS_STAT_DIR.text_in(config);
    if (!stat_dir.ends_with('/'))
        stat_dir += '/';
    qos_file_name = keys::QOS_FILE_NAME.text_in(config);
    qos_file_name_eos = keys::QOS_FILE_NAME_EOS.text_in(config);
    rtp_dump_file_name = keys::RTP_DUMP_FILE_NAME.text_in(config);
    rtp_logging = keys::RTP_LOGGING.number_in(config) != 0;
    max_buf_timeout_rtp = keys::MAX_BUF_TIMEOUT_RTP.number_in(config);
    max_length_per_sec_rtp = keys::MAX_LENGTH_PER_SEC_RTP.number_in(config);
    max_file_size_rtp = static_cast<unsigned>(keys::MAX_FILE_SIZE_RTP.number_in(config));
    max_archived_files_rtp = static_cast<unsigned>(keys::MAX_ARCHIVED_FILES_RTP.number_in(config));
}

void FileLogger::fl_create_files()
{
    files[STAT_SLOT] =
        create_file(QOS_STAT_HEADER, stat_dir, qos_file_name, keys::QOS_FILE_NAME.text,
                    limits::TEXT_EXTENSION, limits::STAT_FILE_SIZE, limits::STAT_ARCHIVES);
    files[EOS_SLOT] =
        create_file(QOS_EOS_HEADER, stat_dir, qos_file_name_eos, keys::QOS_FILE_NAME_EOS.text,
                    limits::TEXT_EXTENSION, limits::SUMMARY_FILE_SIZE, limits::SUMMARY_ARCHIVES);
    files[VOICE_SLOT] =
        create_file(PCAP_FILE_HEADER, stat_dir, rtp_dump_file_name, keys::RTP_DUMP_FILE_NAME.text,
                    limits::DUMP_EXTENSION, max_file_size_rtp, max_archived_files_rtp);
}

bool FileLogger::fl_init_locks()
{
    const int qos_rc = pthread_mutex_init(&qos_mutex, nullptr);
    const int rtp_rc = pthread_mutex_init(&rtp_mutex, nullptr);
    if (qos_rc == 0 && rtp_rc == 0) {
        locks_ready = true;
        return true;
    }
    fl_cleanup();
    DBG->Log(DBG_ERROR, {"Unable to init mutex for FileLogger. Error: ", std::to_string(qos_rc),
                         ",", std::to_string(rtp_rc)});
    return false;
}

void FileLogger::fl_start()
{
    writer_running = true;  // before the thread exists, so that an early fl_stop() still stops it
    const int rc = pthread_create(&writer_thread, nullptr, fl_execute, this);
    if (rc == 0) {
        (void)pthread_setname_np(writer_thread, "QoS_FileLogger");  // for display only
        return;
    }
    writer_running = false;  // nothing to join
    fl_cleanup();
    DBG->Log(DBG_ERROR,
             {"Unable to create new thread for FileLogger. Error: ", std::to_string(rc)});
}

void FileLogger::fl_stop()
{
    if (writer_running.exchange(false))
        pthread_join(writer_thread, nullptr);
}

void FileLogger::fl_cleanup()
{
    for (auto& file : files)
        file.reset();
}

int FileLogger::FL_Write(QoSPacket* packet)
{
    const bool session = packet->is_not_eos();
    if (!session && !packet->is_eos()) {
        DBG->Log(DBG_TRACE, "FileLogger::FL_Write Ignoring unknown event.");
        return -1;
    }
    const std::string_view line = packet->log_string();
    int queued = 0;
    if (locks_ready) {
        const ScopedLock lock(qos_mutex);
        queued = queue_record(session ? stat_buf : eos_buf, MAX_QOS_BUFFERED,
                              session ? stat_lost : eos_lost, {line, "\n"});
    }
    DBG->Log(DBG_DEBUG, {"FileLogger::FL_Write new event: ", line});
    return queued;
}

int FileLogger::FL_Write(VoicePacket* packet)
{
    if (!rtp_logging)
        return 0;
    const std::string_view record(reinterpret_cast<const char*>(packet->get_pcap_packet()),
                                  static_cast<std::size_t>(packet->get_pcap_size()));
    int queued = 0;
    std::size_t buffered = 0;
    if (locks_ready) {
        const ScopedLock lock(rtp_mutex);
        queued = queue_record(rtp_buf, max_length_per_sec_rtp, rtp_lost, {record});
        buffered = rtp_buf.size();
    }
    DBG->Log(DBG_DEBUG, {"FileLogger::FL_Write new voice event ", std::to_string(record.size()),
                         " bytes. Total in buffer: ", std::to_string(buffered)});
    return queued;
}

void* FileLogger::fl_execute(void* file_logger)
{
    if (file_logger != nullptr)
        static_cast<FileLogger*>(file_logger)->fl_run();
    return nullptr;
}

void FileLogger::fl_run()
{
    guarded([this] { fl_cleanup_archives(); }, log_reason);
    while (writer_running) {
        guarded([this] { fl_pass(); }, log_reason);
        usleep(sleep_us);  // read each time, because the voice writer changes it
    }
    fl_final_flush();
    DBG->Log(DBG_INFO, "Terminating FileLogger thread...");
}

// The next rotation of the dump cleans up its archives.
void FileLogger::fl_cleanup_archives()
{
    for (const std::size_t slot : {STAT_SLOT, EOS_SLOT})
        if (files[slot] != nullptr)
            files[slot]->fobj_cleanup();
}

void FileLogger::fl_pass()
{
    fl_write_file(QOS_STAT, false, false);
    fl_write_file(QOS_STAT_EOS, false, false);
    fl_write_rtp_dump(false, false);
}

// Each file separately: if one fails, the others must still get their last block.
void FileLogger::fl_final_flush()
{
    guarded([this] { fl_write_file(QOS_STAT, true, true); }, log_reason);
    guarded([this] { fl_write_file(QOS_STAT_EOS, true, true); }, log_reason);
    guarded([this] { fl_write_rtp_dump(true, true); }, log_reason);
}

void FileLogger::fl_write_file(Qos_Stat_Type type, bool sync, bool force)
{
    const bool session = type == QOS_STAT;
    FileObject* const file = files[session ? STAT_SLOT : EOS_SLOT].get();
    std::string& buffer = session ? stat_buf : eos_buf;
    time_t& last_write = session ? stat_last_write : eos_last_write;
    const time_t tail_timeout = session ? STAT_TAIL_TIMEOUT_SECONDS : EOS_TAIL_TIMEOUT_SECONDS;

    const ScopedLock lock(qos_mutex);
    if (buffer.empty())
        return;
    report_overflow("QoS WRITE OVERFLOW: ", session ? stat_lost : eos_lost);
    const std::string block = take_block(file, buffer, last_write, tail_timeout, force);
    if (block.empty())
        return;
    DBG->Log(DBG_DEBUG, {"FileLogger::fl_write_file - writing block: \n", block});
    (void)file->fobj_write(block, sync);  // what it does not write is lost: nothing is retried
    last_write = time(nullptr);
}

void FileLogger::fl_write_rtp_dump(bool sync, bool force)
{
    if (!rtp_logging)
        return;
    const ScopedLock lock(rtp_mutex);
    if (rtp_buf.empty()) {
        if (sleep_us == SHORT_PAUSE_US && ++idle_passes > IDLE_PASSES_LIMIT)
            sleep_us = LONG_PAUSE_US;
        return;
    }
    sleep_us = SHORT_PAUSE_US;
    idle_passes = 0;
    report_overflow("VOICE DUMP WRITE OVERFLOW: ", rtp_lost);
    FileObject* const file = files[VOICE_SLOT].get();
    const std::string block = take_block(file, rtp_buf, rtp_last_write, max_buf_timeout_rtp, force);
    if (block.empty())
        return;
    DBG->Log(DBG_DEBUG, {"FileLogger::fl_write_rtp_dump - writing block: ",
                         std::to_string(block.size()), " bytes"});
    (void)file->fobj_write(block, sync);  // as above
    rtp_last_write = time(nullptr);
}
