// The file logger.
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "filelog/file_logger.h"
#include "records/qos_packet.h"
#include "records/voice_packet.h"
#include "unit/harness.h"

static Faults& faults = Faults::self();

static const char* const NAMES[] = {"QoS_Stat.txt", "QoS_Stat_Sessions_Summary.txt",
                                    "RTP_Streams_No_Voice.pcap"};
static const char* const TYPES[] = {"QOS_FAREND", "QOS_EOS_FAREND"};
static constexpr std::size_t HEADERS[] = {144, 191, 24};

// Queues, for one of the three files, what takes so many bytes there.
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

// A file logger whose thread has ended: it still queues, and the test writes the blocks.
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
        std::size_t size = HEADERS[row.file];
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
    };
    std::vector<std::size_t> full(100, 1024), over = full;  // 102400 bytes, and one more
    over.back()++;
    const std::vector<std::size_t> small = {500, 500}, larger = {500, 501}, megabytes(10240, 1024);
    const Row rows[] = {{0, 9, full},  {0, 9, over},     {1, 9, full},
                        {1, 9, over},  {2, 1000, small}, {2, 1000, larger},
                        {2, 0, {200}}, {2, -1, {}},      {2, 10485760, megabytes}};  // the default
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
        const std::string lost = std::string(row.file == 2 ? " [WARN] VOICE DUMP" : " [WARN] QoS") +
                                 " WRITE OVERFLOW: " + (exactly_full ? "2" : "3") +
                                 "messages lost\n";
        EXPECT_EQ(row.queued.empty() ? "" : lost, log.take());
        queue(idle.logger, row.file, 200);  // told once
        write_step(idle.logger, row.file, true);
        EXPECT_EQ("", log.take());
        EXPECT_EQ(row.queued.empty() ? 0 : HEADERS[row.file] + total + (exactly_full ? 400 : 200),
                  idle.size(row.file));
    }
    IdleFileLogger idle("");
    QoSPacket unknown("QOS_EV_TYPE=QOS_NEAR", "");
    EXPECT_EQ(-1, idle.logger.FL_Write(&unknown));
    EXPECT_THROW(FileLogger(nullptr), std::invalid_argument);
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
    write_file(old.dir / NAMES[2], std::string(1500, 'o'));  // its size shows when it is opened
    queue(old.logger, 2, 1100);
    write_step(old.logger, 2);
    write_step(old.logger, 2, true);
    EXPECT_EQ(1500U + 1024, read_file(old.dir / archive).size());
    EXPECT_EQ(24U + 76, old.size(2));
}

// With nothing configured: the names, the archives that are kept, and when they are trimmed.
TEST(FileLogger, KeepsFewArchives)
{
    struct Row {
        int file;
        std::size_t limit;  // bytes
        std::size_t at_start, at_rotation;
    };
    const Row rows[] = {{0, 20971520, 4, 4}, {1, 5242880, 2, 2}, {2, 52428800, 25, 20}};
    const auto stem_of = [](int file) {
        return std::filesystem::path(NAMES[file]).stem().string();
    };
    for (const std::size_t below : {0U, 1U}) {  // its limit when the write begins
        const TempDir root;
        faults.set_root(root.path);
        const std::string dir = root / "home/build/zkhome/QoS/";
        std::filesystem::create_directories(dir);
        const auto archives = [&dir](const std::string& stem) {
            std::string names;
            for (const auto& entry : std::filesystem::directory_iterator(dir))
                names += entry.path().filename();
            return count(names, stem + "_2");
        };
        for (const Row& row : rows) {
            const std::string live = dir + NAMES[row.file];
            for (int i = 10; i < 35; i++)
                write_file(dir + stem_of(row.file) + "_2020-01-01_00-00-" + std::to_string(i) +
                               live.substr(live.rfind('.')),
                           "");
            write_file(live, "");
            std::filesystem::resize_file(live, row.limit - below);
        }
        ConfigFile config = config_of("");
        FileLogger logger(&config);
        logger.fl_stop();
        for (const Row& row : rows) {
            EXPECT_EQ(row.at_start, archives(stem_of(row.file)));
            queue(logger, row.file, 200);
            write_step(logger, row.file, true);
            EXPECT_EQ(below == 0 ? row.at_rotation : row.at_start, archives(stem_of(row.file)));
            EXPECT_EQ(below == 1, std::filesystem::exists(dir + NAMES[row.file]));
        }
    }
}

TEST(FileLogger, TakesNamesAndNumbersFromItsConfiguration)
{
    IdleFileLogger idle("qos_file_name=a\nqos_file_name_eos=b\nrtp_dump_file_name=c\n"
                        "max_file_size_rtp=1\nmax_archived_files_rtp=1");
    for (const int file : {0, 1, 2, 2}) {  // both dumps are full at once
        queue(idle.logger, file, 200);
        write_step(idle.logger, file, true);
    }
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(idle.dir.path))
        names.insert(entry.path().filename());
    EXPECT_EQ((std::set<std::string>{"a.txt", "b.txt", "c_2023-11-14_22-13-20_002.pcap"}), names);
    EXPECT_EQ(144U + 200, read_file(idle.dir / "a.txt").size());
    EXPECT_EQ(191U + 200, read_file(idle.dir / "b.txt").size());
}

// The pause of the thread and the order of a pass, told by a thread that queues in its own pauses.
TEST(FileLogger, PausesFollowTheVoiceTraffic)
{
    LogCapture log("log.default=2");
    const TempDir dir;
    for (const bool off : {false, true}) {
        ConfigFile config =
            config_of("qos_stat_dir=" + dir.path + "\nrtp_logging=" + (off ? "0" : "-1"));
        faults.skip_pauses = true;
        std::vector<long> pauses;  // of the writer thread
        std::atomic<bool> done{false};
        FileLogger* logger = nullptr;
        std::atomic<bool> ready{false};
        Faults::set_watch([&](std::string_view function, long pause, long /*unused*/) {
            if (function != "usleep" || !ready || done)
                return;
            pauses.push_back(pause);
            if (pauses.size() == 2 || pauses.size() == 602) {
                for (const int file : {2, 1, 0})
                    EXPECT_EQ(off && file == 2 ? 0 : 1024, queue(*logger, file, 1024));
            }
            done = pauses.size() > 1300;
        });
        FileLogger own(&config);
        logger = &own;
        ready = true;
        EXPECT_TRUE(eventually([&] { return done.load(); }));
        own.fl_stop();
        std::vector<long> expected(1301, 100000);
        if (!off)
            for (const long after : {2, 602})  // the pass that writes, and 499 empty ones
                std::fill_n(expected.begin() + after, 500, 10000);
        EXPECT_EQ(expected, pauses);
        own.fl_cleanup();
        Faults::set_watch(nullptr);
        std::string opened;
        for (const char* const name : NAMES)
            if (!off || name != NAMES[2])
                opened += " [INFO] Opened for writing " + (dir / name) + "\n";
        EXPECT_TRUE(log.take().starts_with(opened));
    }
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

TEST(FileLogger, DoesWithoutAFileThatItCannotMake)
{
    LogCapture log("log.default=0");
    poll(nullptr, 0, 0);  // from now on memory can be refused
    const TempDir dir;
    ConfigFile config = config_of("qos_file_name=other\nqos_stat_dir=" + dir.path);
    std::set<std::string> logged;
    for (int n = 1; n < 100; n++) {
        faults.arm("pthread_mutex_init", 1, ENOMEM, true);  // no thread
        faults.refuse_memory(n, 1);
        try {
            const FileLogger logger(&config);
        } catch (const std::bad_alloc&) {  // before the files
        }
        faults.refuse_memory(0, 0);
        const std::string all = LogCapture::take();
        logged.insert(all.substr(0, all.find('\n')));
    }
    for (const char* const name : {"QoS_Stat", "QoS_Stat_Sessions_Summary", "RTP_Streams_No_Voice"})
        EXPECT_EQ(1U, logged.count("[ERROR] " + (dir / name) + " Unable to open: std::bad_alloc"));
}
