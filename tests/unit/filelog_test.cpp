// The file logger.
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <filesystem>

#include "filelog/file_logger.h"
#include "records/qos_packet.h"
#include "records/voice_packet.h"
#include "unit/harness.h"

static Faults& faults = Faults::self();

static const char* const NAMES[] = {"QoS_Stat.txt", "QoS_Stat_Sessions_Summary.txt",
                                    "RTP_Streams_No_Voice.pcap"};
static const char* const TYPES[] = {"QOS_FAREND", "QOS_EOS_FAREND"};
static constexpr std::size_t HEADERS[] = {144, 191, 24};

// Queues this many bytes for one of the three files.
static int queue(FileLogger& logger, int file, std::size_t size)
{
    if (file == 2) {
        VoicePacket voice;
        const std::string record = voice_record(std::string(size - 58, 'v'));
        voice.init_pcap_packet(record.data(), static_cast<int>(record.size()));
        return logger.FL_Write(&voice);
    }
    const std::string text = std::string("QOS_EV_TYPE=") + TYPES[file] + "\nQOS_EV_RTCP_CNAME=";
    const std::size_t line = std::string(QoSPacket(text.c_str(), "").log_string()).size() + 1;
    QoSPacket report((text + std::string(size - line, 'c')).c_str(), "");
    return logger.FL_Write(&report);
}

static void write_step(FileLogger& logger, int file, bool force = false)
{
    if (file == 2)
        logger.fl_write_rtp_dump(force, force);
    else
        logger.fl_write_file(file == 0 ? QOS_STAT : QOS_STAT_EOS, force, force);
}

// A file logger whose thread has exited: it still queues, and the test writes the blocks.
struct IdleFileLogger {
    explicit IdleFileLogger(const std::string& settings)
        : config(config_of("qos_stat_dir=" + dir.path + "\n" + settings)), logger(&config)
    {
        stop_the_clock();
        logger.fl_stop();
    }
    std::size_t size(int file) const { return read_file(dir / NAMES[file]).size(); }
    TempDir dir;
    ConfigFile config;
    FileLogger logger;
};

TEST(FileLogger, WritesWholeBlocksAndOldTails)
{
    struct Row {
        int file;
        const char* config;
        long timeout;  // seconds
    };
    for (const Row& row :
         {Row{0, "", 30}, Row{1, "", 60}, Row{2, "", 30}, Row{2, "max_buf_timeout_rtp=7", 7}}) {
        IdleFileLogger idle(row.config);
        const auto written = [&](std::size_t queued, long seconds_later, bool force = false) {
            const std::size_t before = idle.size(row.file);
            if (queued > 0) {
                EXPECT_EQ(queued, queue(idle.logger, row.file, queued));
            }
            faults.clock_shift += seconds_later;
            write_step(idle.logger, row.file, force);
            return idle.size(row.file) - before;
        };
        faults.arm("open", 1, EMFILE);
        EXPECT_THROW(written(200, 0), std::runtime_error);  // lost, and does not hold up the next
        faults.arm("fsync", 0, 0);
        EXPECT_EQ(HEADERS[row.file] + 200, written(200, 0));
        EXPECT_EQ(0U, written(200, row.timeout));
        EXPECT_EQ(1024U, written(824, 0));
        EXPECT_EQ(1024U, written(1100, row.timeout + 9));  // what is left is not due
        EXPECT_EQ(0U, written(0, row.timeout));
        EXPECT_EQ(76U, written(0, 1));
        EXPECT_EQ(0, faults.calls("fsync"));
        EXPECT_EQ(400U, written(400, 0, true));
        EXPECT_EQ(0U, written(0, 0, true));
        EXPECT_EQ(1, faults.calls("fsync"));
    }
}

TEST(FileLogger, DropsAndCountsBeyondItsCaps)
{
    struct Row {
        const char* what;
        int file;
        const char* config;
        int blocks;  // of 1024 bytes, then
        std::size_t last,
            taken;  // one record of this size, and three of 200; bytes accepted in total
    };
    static const char* const CAP = "max_length_per_sec_rtp=2048";
    LogCapture log("log.default=1");
    for (const Row& row : {Row{"reports at the cap", 0, CAP, 99, 1024, 102600},
                           Row{"reports above", 0, CAP, 99, 1025, 102401},
                           Row{"summaries at the cap", 1, CAP, 99, 1024, 102600},
                           Row{"summaries above", 1, CAP, 99, 1025, 102401},
                           Row{"voice at its cap", 2, CAP, 1, 1024, 2248},
                           Row{"voice above its cap", 2, CAP, 1, 1025, 2049},
                           Row{"voice at the default", 2, "", 10239, 1024, 10485960},
                           Row{"voice above the default", 2, "", 10239, 1025, 10485761},
                           Row{"voice cap 0: only an empty buffer takes one", 2,
                               "max_length_per_sec_rtp=0", 0, 200, 200},
                           Row{"negative cap", 2, "max_length_per_sec_rtp=-1", 0, 200, 0},
                           Row{"voice is off", 2, "rtp_logging=0", 0, 200, 0}}) {
        IdleFileLogger idle(row.config);
        int taken = 0, lost = 0;
        const auto offer = [&](std::size_t size) {
            const int result = queue(idle.logger, row.file, size);
            taken += result;
            lost += result == 0;
        };
        for (int i = 0; i < row.blocks; i++)
            offer(1024);
        offer(row.last);
        for (int i = 0; i < 3; i++)
            offer(200);
        EXPECT_EQ(row.taken, taken) << row.what;
        write_step(idle.logger, row.file, true);
        EXPECT_EQ(taken == 0 ? ""
                             : std::string(row.file == 2 ? " [WARN] VOICE DUMP" : " [WARN] QoS") +
                                   " WRITE OVERFLOW: " + std::to_string(lost) + "messages lost\n",
                  log.take());
        offer(200);
        write_step(idle.logger, row.file, true);
        EXPECT_EQ("", log.take());  // logged once
        EXPECT_EQ(taken == 0 ? 0 : HEADERS[row.file] + static_cast<std::size_t>(taken),
                  idle.size(row.file));
    }
    IdleFileLogger idle("");
    QoSPacket unknown("QOS_EV_TYPE=QOS_NEAR", "");
    EXPECT_EQ(-1, idle.logger.FL_Write(&unknown));
    EXPECT_THROW(FileLogger(nullptr), std::invalid_argument);
}

// Without configuration: the names, the number of archives, and when they are deleted.
TEST(FileLogger, KeepsFewArchives)
{
    using namespace std::filesystem;
    struct Row {
        int file;
        std::size_t limit;  // bytes
        int at_start, at_rotation;
    };
    const Row rows[] = {{0, 20971520, 4, 4}, {1, 5242880, 2, 2}, {2, 52428800, 25, 20}};
    for (const std::size_t below : {0U, 1U}) {  // of its limit before the write
        const TempDir root;
        faults.set_root(root.path);
        const path dir = root / "home/build/zkhome/QoS";
        create_directories(dir);
        const auto archives = [&dir](int file) {
            return std::count_if(directory_iterator(dir), {}, [file](const auto& entry) {
                return count(entry.path(), path(NAMES[file]).stem().string() + "_2") > 0;
            });
        };
        for (const Row& row : rows) {
            const path live = dir / NAMES[row.file];
            for (int i = 10; i < 35; i++)
                write_file((dir / live.stem()).string() + "_2020-01-01_00-00-" + std::to_string(i) +
                               live.extension().string(),
                           "");
            write_file(live, "");
            resize_file(live, row.limit - below);
        }
        ConfigFile config = config_of("");
        FileLogger logger(&config);
        logger.fl_stop();
        for (const Row& row : rows) {
            EXPECT_EQ(row.at_start, archives(row.file));
            queue(logger, row.file, 200);
            write_step(logger, row.file, true);
            EXPECT_EQ(below == 0 ? row.at_rotation : row.at_start, archives(row.file));
            EXPECT_EQ(below == 1, exists(dir / NAMES[row.file]));
        }
    }
}

TEST(FileLogger, TakesNamesAndNumbersFromItsConfiguration)
{
    IdleFileLogger idle("qos_file_name=a\nqos_file_name_eos=b\nrtp_dump_file_name=c\n"
                        "max_file_size_rtp=1\nmax_archived_files_rtp=1");
    for (const int file : {0, 1, 2, 2}) {  // each write fills the dump
        queue(idle.logger, file, 200);
        write_step(idle.logger, file, true);
    }
    EXPECT_EQ((FileSizes{{"a.txt", HEADERS[0] + 200},
                         {"b.txt", HEADERS[1] + 200},
                         {"c_2023-11-14_22-13-20_002.pcap", HEADERS[2] + 200}}),
              sizes_of(idle.dir));
}

TEST(FileLogger, LooksMoreOftenWhileVoiceFlows)
{
    LogCapture log("log.default=2");
    const TempDir dir;
    ConfigFile config = config_of("qos_stat_dir=" + dir.path + "\nrtp_logging=-1");
    enum { IDLE, QUEUED, BUSY, IDLE_AGAIN };
    std::atomic<int> state = IDLE;
    std::atomic<FileLogger*> logger = nullptr;
    long idle_pause = 0;
    faults.skip_pauses = true;
    Faults::set_watch([&](std::string_view function, long pause, long /*unused*/) {
        if (function != "usleep" || logger == nullptr)
            return;
        if (state == IDLE) {  // in a pause of the writer, so that one pass finds all three
            idle_pause = pause;
            for (const int file : {2, 1, 0})
                EXPECT_EQ(1024, queue(*logger, file, 1024));
            state = QUEUED;
        } else if (state == QUEUED && pause < idle_pause) {
            state = BUSY;
        } else if (state == BUSY && pause == idle_pause) {
            state = IDLE_AGAIN;
        }
    });
    FileLogger own(&config);
    logger = &own;
    EXPECT_TRUE(eventually([&] { return state == IDLE_AGAIN; }));
    logger = nullptr;
    own.fl_stop();
    std::string opened;
    for (const char* const name : NAMES)
        opened += " [INFO] Opened for writing " + (dir / name) + "\n";
    EXPECT_EQ(opened + " [INFO] Terminating FileLogger thread...\n", log.take());
}

TEST(FileLogger, FlushesEachFileWhateverHappensToTheOthers)
{
    LogCapture log("log.default=2");
    stop_the_clock(1);  // no tail is old before the stop
    for (const int broken : {-1, 0, 1, 2}) {
        const TempDir dir;
        ConfigFile config = config_of("qos_stat_dir=" + dir.path);
        FileLogger logger(&config);
        std::string logged;
        LogCapture::take();
        for (const int file : {0, 1, 2}) {
            EXPECT_EQ(200, queue(logger, file, 200));
            logged += (file == broken ? "[ERROR] Failed to open " : " [INFO] Opened for writing ") +
                      (dir / NAMES[file]) + "\n";
        }
        faults.arm("fsync", 0, 0);
        faults.arm("open", broken + 1, EMFILE);
        logger.fl_stop();
        EXPECT_EQ(broken == -1 ? 3 : 2, faults.calls("fsync"));
        EXPECT_EQ(logged + " [INFO] Terminating FileLogger thread...\n", log.take());
        for (const int file : {0, 1, 2})
            EXPECT_EQ(file == broken ? 0 : HEADERS[file] + 200,
                      read_file(dir / NAMES[file]).size());
    }
}

TEST(FileLogger, RunsWithoutAFileThatItCannotCreate)
{
    LogCapture log("log.default=0");
    const TempDir dir;
    ConfigFile config = config_of("qos_file_name=other\nqos_stat_dir=" + dir.path);
    poll(nullptr, 0, 0);  // from now on, allocations can fail
    std::string logged;
    for (int n = 1; n < 100; n++) {
        faults.arm("pthread_mutex_init", 1, ENOMEM, true);  // no thread
        faults.refuse_memory(n, 1);
        try {
            const FileLogger logger(&config);
        } catch (const std::bad_alloc&) {  // before the files
        }
        faults.refuse_memory(0, 0);
        logged += LogCapture::take();
    }
    for (const char* const name : {"QoS_Stat", "QoS_Stat_Sessions_Summary", "RTP_Streams_No_Voice"})
        EXPECT_LT(0U, count(logged, "[ERROR] " + (dir / name) + " Unable to open: std::bad_alloc"));
}
