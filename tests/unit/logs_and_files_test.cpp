// The diagnostic log, the rotating file and the file logger.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>

#include "filelog/file_logger.h"
#include "files/file_object.h"
#include "log/simple_logger.h"
#include "records/qos_packet.h"
#include "records/voice_packet.h"
#include "unit/harness.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

static constexpr long NOON = 1700000000;  // 2023-11-14 22:13:20 UTC
static Faults& faults = Faults::self();

static void stop_the_clock()
{
    setenv("TZ", "UTC", 1);
    faults.clock_stands_at = NOON;
}

static std::map<std::string, std::size_t> sizes_of(const TempDir& dir)
{
    std::map<std::string, std::size_t> sizes;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path))
        sizes[entry.path().filename()] = entry.is_directory() ? 0 : entry.file_size();
    return sizes;
}

TEST(FileObject, RotatesAfterTheFirstWriteThatBeginsAtTheLimit)
{
    struct Row {
        int header, existing;  // bytes; -1: no file
        unsigned limit;
        int writes;                 // of 600 bytes
        std::size_t live, archive;  // bytes at the end; 0: none
    };
    static const Row rows[] = {
        {0, -1, 1000, 2, 1200, 0},   {0, -1, 1000, 3, 0, 1800},    {0, -1, 1000, 4, 600, 1800},
        {7, -1, 607, 1, 607, 0},     {7, -1, 607, 2, 0, 1207},     {7, -1, 608, 3, 0, 1807},
        {7, 0, 5000, 1, 607, 0},     {7, 10, 5000, 1, 610, 0},     {7, 999, 1000, 2, 0, 2199},
        {7, 1000, 1000, 1, 0, 1600}, {7, 1000, 1000, 2, 607, 1600}};
    stop_the_clock();
    for (const Row& row : rows) {
        const TempDir dir;
        if (row.existing >= 0)
            write_file(dir / "F.txt", std::string(static_cast<std::size_t>(row.existing), 'e'));
        FileObject file("header\n", row.header, dir.path, "F", ".txt", row.limit, 4);
        faults.restart();
        for (int i = 0; i < row.writes; i++)
            EXPECT_EQ(600, file.fobj_write(std::string(600, 'w'), false));
        EXPECT_EQ(row.archive > 0 ? 1 : 0, faults.calls("fsync"));
        auto sizes = sizes_of(dir);
        const std::string oldest = read_file(dir / sizes.rbegin()->first);
        EXPECT_EQ(row.header > 0 && row.existing < 1, oldest.starts_with("header"));
        EXPECT_EQ(row.live, sizes["F.txt"]) << row.limit << " " << row.writes;
        EXPECT_EQ(row.archive, sizes["F_2023-11-14_22-13-20.txt"])
            << row.limit << " " << row.writes;
    }
}

TEST(FileObject, ReportsEveryEventAndNamesArchivesApart)
{
    stop_the_clock();
    umask(022);
    LogCapture log;
    const TempDir dir;
    const std::string path = dir / "new/F.txt", archive = dir / "new/F_2023-11-14_22-13-20";
    {
        FileObject file("header\n", 7, dir / "new", "F", ".txt", 20, 2);
        file.fobj_open();
        file.fobj_open();
        EXPECT_EQ(0, file.fobj_write("", true));
        for (int i = 0; i < 8; i++)
            file.fobj_write("fifteen bytes.\n", false);
        file.fobj_close();
    }
    const std::string opened = " [INFO] Opened for writing " + path +
                               "\n[DEBUG] Written file header to " + path + "(7 bytes)\n";
    const std::string closed = " [INFO] Closed file: " + path + "\n";
    const std::string rotated = closed + "[TRACE] " + path + " rotated to " + archive;
    const std::string deleted = " [INFO] FileObject::fobj_cleanup: successfully deleted " + archive;
    EXPECT_EQ(opened + " [INFO] Ignoring file open request, file already open: " + path + "\n" +
                  rotated + ".txt\n" + opened + rotated + "_002.txt\n" + opened + rotated +
                  "_003.txt\n" + deleted + ".txt\n" + opened + rotated + "_004.txt\n" + deleted +
                  "_002.txt\n" + closed + closed,
              log.take());
    struct stat made {};
    EXPECT_EQ(0, stat((dir / "new").c_str(), &made));
    EXPECT_EQ(0744U, made.st_mode & 0777U);
    EXPECT_EQ(geteuid() == 0 ? 500U : geteuid(), made.st_uid);
}

TEST(FileObject, CountsTheBytesThatWereWritten)
{
    const TempDir dir;
    FileObject file(nullptr, 0, dir.path, "F", ".txt", 15, 4);
    faults.arm("write", 1, Faults::SHORT_COUNT);
    EXPECT_EQ(10, file.fobj_write(std::string(20, 'w'), false));
    faults.arm("write", 1, ENOSPC);
    EXPECT_GT(0, file.fobj_write(std::string(20, 'w'), false));
    faults.disarm();
    EXPECT_EQ(20, file.fobj_write(std::string(20, 'w'), false));
    EXPECT_EQ(1U, sizes_of(dir).count("F.txt"));  // began below its limit
}

TEST(FileObject, RemovesTheOldestOfItsOwnArchivesOnly)
{
    using namespace std::filesystem;
    LogCapture log;
    const TempDir dir;
    create_directory(dir / "S_2020-01-01_00-00-00.txt");
    // Names and ages in hours: the first three must go, in this order, and all others stay.
    std::istringstream files(R"(
        S_2026-03-09_14-05-09.txt 90        S_2026-03-03_14-05-09.txt 50
        S_2026-03-03_14-05-09_002.txt 50    S_2026-03-03_14-05-09_1000.txt 50
        S_2026-03-01_14-05-09.txt 10        S.txt 99
        S_Sum.txt 99                        S_Sum_2026-03-03_14-05-09.txt 99
        S_2026-03-03_14-05-09.log 99        S_2026-03-03_14-05-09_02.txt 99
        xS_2026-03-03_14-05-09.txt 99       S_2026-03-03_14-05-0.txt 99
        S_2026-03-03_14-05-09_0x2.txt 99)");
    const auto now = file_time_type::clock::now();
    std::string name, removed;
    int number = 0;
    for (int hours = 0; files >> name >> hours; number++) {
        write_file(dir / name, "x");
        last_write_time(dir / name, now - std::chrono::hours(hours));
        if (number < 3)
            removed +=
                " [INFO] FileObject::fobj_cleanup: successfully deleted " + (dir / name) + "\n";
    }
    FileObject file(nullptr, 0, dir.path, "S", ".txt", 100, 2);
    file.fobj_cleanup();
    EXPECT_EQ(removed, log.take());
    EXPECT_EQ(static_cast<std::size_t>(number - 3 + 1), sizes_of(dir).size());
}

// A report whose line takes so many bytes in its file, and a voice record of that size in the dump.
static std::string report_of(std::size_t size, const std::string& type = "QOS_NEAREND")
{
    const std::string report = "QOS_EV_TYPE=" + type + "\nQOS_EV_RTCP_CNAME=";
    const std::size_t line = std::string(QoSPacket(report.c_str(), "").log_string()).size() + 1;
    return report + std::string(size - line, 'c');
}

static int queue(FileLogger& logger, int file, std::size_t size)
{
    VoicePacket voice;
    const std::string record = voice_record(std::string(size - 58, 'v'));
    voice.init_pcap_packet(record.data(), static_cast<int>(record.size()));
    QoSPacket report(report_of(size, file == 0 ? "QOS_FAREND" : "QOS_EOS_FAREND").c_str(), "");
    return file == 2 ? logger.FL_Write(&voice) : logger.FL_Write(&report);
}

static void write_step(FileLogger& logger, int file, bool force = false)
{
    if (file == 2)
        logger.fl_write_rtp_dump(force, force);
    else
        logger.fl_write_file(file == 0 ? QOS_STAT : QOS_STAT_EOS, force, force);
}

// A file logger whose thread has ended: it still queues, and the test writes the blocks.
struct IdleFileLogger {
    explicit IdleFileLogger(const std::string& settings)
        : config(config_of("qos_stat_dir=" + dir.path + "\n" + settings)), logger(&config)
    {
        stop_the_clock();
        logger.fl_stop();
    }
    std::size_t size(int file) const { return read_file(dir / names[file]).size(); }
    static constexpr const char* names[] = {"QoS_Stat.txt", "QoS_Stat_Sessions_Summary.txt",
                                            "RTP_Streams_No_Voice.pcap"};
    static constexpr std::size_t headers[] = {144, 191, 24};
    TempDir dir;
    ConfigFile config;
    FileLogger logger;
};

TEST(FileLogger, WritesWholeBlocksAndOldTails)
{
    struct Step {
        std::size_t queued;  // bytes
        long overdue;        // seconds beyond the tail timeout
        bool force;
        std::size_t written;
    };
    static const Step steps[] = {
        {200, -60, false, 200},   {200, 0, false, 0},    {824, -60, false, 1024},
        {1100, -60, false, 1024}, {972, 9, false, 1024}, {0, 0, false, 0},
        {0, 1, false, 24},        {400, 0, true, 400},   {0, 9, true, 0}};
    struct Row {
        int file;
        const char* config;
        long timeout;  // seconds
    };
    static const Row rows[] = {
        {0, "", 30}, {1, "", 60}, {2, "", 30}, {2, "max_buf_timeout_rtp=7", 7}};
    for (const Row& row : rows) {
        IdleFileLogger idle(row.config);
        std::size_t size = idle.headers[row.file];
        long last_write = faults.clock_shift;
        for (const Step& step : steps) {
            if (step.queued > 0) {
                EXPECT_EQ(step.queued, queue(idle.logger, row.file, step.queued));
            }
            faults.clock_shift = last_write + std::max(0L, row.timeout + step.overdue);
            faults.arm("fsync", 0, 0);
            write_step(idle.logger, row.file, step.force);
            EXPECT_EQ(step.force && step.written > 0 ? 1 : 0, faults.calls("fsync"));
            EXPECT_EQ(size += step.written, idle.size(row.file)) << row.file << " " << step.queued;
            if (step.written > 0)
                last_write = faults.clock_shift;
        }
    }
}

TEST(FileLogger, DropsAndCountsBeyondItsCaps)
{
    struct Row {
        int file, cap;
        std::vector<std::size_t> queued;  // bytes; what follows the cap is dropped
        const char* message;
    };
    std::vector<std::size_t> full(100, 1024), over = full;  // 102400 bytes, and one more
    over.back()++;
    const std::vector<std::size_t> small = {500, 500}, larger = {500, 501}, megabytes(10240, 1024);
    const Row rows[] = {{0, 9, full, "QoS WRITE"},
                        {0, 9, over, "QoS WRITE"},
                        {1, 9, over, "QoS WRITE"},
                        {2, 10485760, megabytes, "VOICE DUMP WRITE"},  // the default
                        {2, 1000, small, "VOICE DUMP WRITE"},
                        {2, 1000, larger, "VOICE DUMP WRITE"},
                        {2, 0, {200}, "VOICE DUMP WRITE"},
                        {2, -1, {}, "VOICE DUMP WRITE"}};
    LogCapture log("log.default=1");
    for (const Row& row : rows) {
        const std::string cap = "max_length_per_sec_rtp=" + std::to_string(row.cap);
        IdleFileLogger idle(row.queued.size() == megabytes.size() ? "" : cap);
        std::size_t total = 0;
        for (const std::size_t size : row.queued) {
            EXPECT_EQ(size, queue(idle.logger, row.file, size));
            total += size;
        }
        const bool exactly_full = total == 102400 || total == static_cast<std::size_t>(row.cap);
        EXPECT_EQ(exactly_full ? 200 : 0, queue(idle.logger, row.file, 200));
        EXPECT_EQ(0, queue(idle.logger, row.file, 200));
        EXPECT_EQ(0, queue(idle.logger, row.file, 200));
        write_step(idle.logger, row.file, true);
        const std::string lost = std::string(" [WARN] ") + row.message +
                                 " OVERFLOW: " + (exactly_full ? "2" : "3") + "messages lost\n";
        EXPECT_EQ(row.queued.empty() ? "" : lost, log.take());
        EXPECT_EQ(row.queued.empty() ? 0
                                     : idle.headers[row.file] + total + (exactly_full ? 200 : 0),
                  idle.size(row.file));
    }
}

TEST(FileLogger, ADueFileTakesTheWholeBufferAndRotates)
{
    IdleFileLogger idle("max_file_size_rtp=1500\nmax_archived_files_rtp=-1");
    const std::string archive = "RTP_Streams_No_Voice_2023-11-14_22-13-20.pcap";
    for (const std::size_t size :
         {1100U, 1100U, 1100U}) {  // 1024 written, 1024 written, all the rest
        queue(idle.logger, 2, size);
        write_step(idle.logger, 2);
    }
    EXPECT_EQ(24U + 3300, read_file(idle.dir / archive).size());
    IdleFileLogger old("max_file_size_rtp=1500");
    write_file(old.dir / old.names[2], std::string(1500, 'o'));  // its size shows when it is opened
    queue(old.logger, 2, 1100);
    write_step(old.logger, 2);
    write_step(old.logger, 2, true);
    EXPECT_EQ(1500U + 1024, read_file(old.dir / archive).size());
    EXPECT_EQ(24U + 76, old.size(2));
}

TEST(FileLogger, BoundsItsFiles)
{
    struct Row {
        int file;
        std::size_t limit;  // bytes
        long kept;          // archives
    };
    for (const Row& row : {Row{0, 20971520, 4}, Row{1, 5242880, 2}, Row{2, 52428800, 20}}) {
        IdleFileLogger idle("");
        const std::filesystem::path live = idle.dir / idle.names[row.file];
        for (int i = 10; i < 35; i++)
            write_file(idle.dir / (live.stem().string() + "_2020-01-01_00-00-" + std::to_string(i) +
                                   live.extension().string()),
                       "");
        write_file(live, "");
        std::filesystem::resize_file(live, row.limit - 200);
        for (const long files : {1 + 25L, row.kept}) {  // full, then rotated
            queue(idle.logger, row.file, 200);
            write_step(idle.logger, row.file, true);
            EXPECT_EQ(files, std::distance(std::filesystem::directory_iterator(idle.dir.path), {}));
        }
    }
}

TEST(FileLogger, PausesFollowTheVoiceTraffic)
{
    const TempDir dir;
    for (const char* const logging : {"0", "-1"}) {
        ConfigFile config = config_of("qos_stat_dir=" + dir.path + "\nrtp_logging=" + logging);
        faults.skip_pauses = true;
        faults.short_pauses = 0;
        FileLogger logger(&config);
        const bool off = logging[0] == '0';
        for (const int pauses : {500, 1000}) {                  // as many after each record
            EXPECT_EQ(off ? 0 : 1024, queue(logger, 2, 1024));  // a whole block
            EXPECT_EQ(!off,
                      eventually([pauses] { return faults.short_pauses >= pauses; }, off ? 1 : 20));
        }
        logger.fl_stop();
        EXPECT_EQ(off ? 0 : 1000, faults.short_pauses);
    }
}

static const char* const LINE = "[A-Z][a-z][a-z]-[0-9][0-9] [0-9:]+\\.[0-9][0-9][0-9]  ";

TEST(Logger, FiltersAndLaysOutLines)
{
    CaptureStdout();
    DBG->Log(DBG_ERROR, "before any group");
    EXPECT_EQ(-1, DBG->register_dbg_group(nullptr));
    ConfigFile config = config_of("log.default=7");
    faults.arm("pthread_mutex_init", 1, ENOMEM);
    DBG->init(&config);
    faults.arm("pthread_create", 1, EAGAIN);
    DBG->init(&config);
    faults.disarm();
    DBG->dbg_stop();
    DBG->Log(DBG_WARN, "bare\ntext");
    DBG->Log(DBG_INFO, "filtered");
    EXPECT_EQ("Unable to init mutex for SimpleLogger. Error: 12\n"
              "Unable to create new thread for SimpleLogger. Error: 11\nbare\ntext\n",
              GetCapturedStdout());
    CaptureStdout();
    DBG->init(&config);
    DBG->dbg_stop();  // at once: must end the thread all the same
    DebugGroup group(DBG_DEBUG, "NET");
    const int index = DBG->register_dbg_group(&group);
    for (const int level : {-1, 0, 1, 2, 3, 4, 5})
        DBG->Log(index, static_cast<DbgLevel>(level), "t");
    DBG->Log(index + 1, DBG_ERROR, "no such group");
    DBG->Log(-1, DBG_ERROR, "no such group");
    DBG->Log(DBG_INFO, "filtered");
    DBG->dbg_write_file(false, false);
    char id[24];
    snprintf(id, sizeof id, " \\[0x%lx\\] t\n",
             static_cast<unsigned long>(pthread_self()) & 0xFFFFFF);
    std::string lines;
    for (const char* const tag : {"\\[UNKNOWN\\]", "\\[ERROR\\]", " \\[WARN\\]", " \\[INFO\\]",
                                  "\\[TRACE\\]", "\\[DEBUG\\]"})
        lines += LINE + (tag + std::string(id));
    EXPECT_THAT(GetCapturedStdout(), MatchesRegex(lines + "\n"));
}

TEST(Logger, WritesItsFileInBlocksAndNotesWhatWasLost)
{
    stop_the_clock();
    const TempDir dir;
    faults.map_log_directory(dir.path);
    for (const char* const name : {"d_2020-01-01_00-00-00.log", "d_2020-01-01_00-00-01.log"})
        write_file(dir / name, "old");
    ConfigFile config = config_of("log.file=d\nlog.default=1");
    DBG->init(&config);
    DBG->dbg_stop();
    EXPECT_EQ(1U, sizes_of(dir).size());  // one archive is kept
    const auto size = [&dir] { return read_file(dir / "d.log").size(); };
    const auto log = [](std::size_t bytes) {
        const std::size_t decoration = dbg_format_line(DBG_WARN, "").size();
        DBG->Log(DBG_WARN, std::string(bytes - decoration, 'm'));
    };
    struct Step {
        std::size_t logged;
        long seconds;  // since the last write
        std::size_t written;
    };
    std::size_t expected = 0;
    for (const Step& step : std::vector<Step>{
             {300, 6, 300}, {2500, 0, 2048}, {0, 5, 0}, {0, 6, 452}, {2048, 0, 2048}}) {
        if (step.logged > 0)
            log(step.logged);
        faults.clock_shift += step.seconds;
        DBG->dbg_write_file(false, false);
        EXPECT_EQ(expected += step.written, size()) << step.logged;
        faults.clock_shift -= step.written == 0 ? step.seconds : 0;
    }
    log(102400);
    log(100);
    for (int i = 0; i < 3; i++)
        log(100);
    DBG->dbg_write_file(true, true);
    EXPECT_THAT(read_file(dir / "d.log"), EndsWith("] LOG FILE WRITE OVERFLOW: 3messages lost\n"));
    EXPECT_EQ(expected + 102500 +
                  dbg_format_line(DBG_WARN, "LOG FILE WRITE OVERFLOW: 3messages lost").size(),
              size());
    log(102401);
    log(100);
    DBG->dbg_write_file(true, true);
    EXPECT_THAT(read_file(dir / "d.log"), EndsWith("] LOG FILE WRITE OVERFLOW: 1messages lost\n"));
}
