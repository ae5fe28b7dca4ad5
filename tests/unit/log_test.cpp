// The diagnostic log and the time stamps.
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <limits>

#include "log/simple_logger.h"
#include "log/utils.h"
#include "unit/harness.h"

using testing::MatchesRegex;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

static Faults& faults = Faults::self();

TEST(TimeStamps, EveryForm)
{
    struct Row {
        const char* zone;
        timeval time;
        std::string date, clock, offset;
    };
    static const Row rows[] = {
        {"UTC", {1700000000, 123456}, "2023-Nov-14 ", "22:13:20.123 ", "+0000"},
        {"IST-5:30", {1704418389, 4000}, "2024-Jan-05 ", "07:03:09.004 ", "+0530"},
        {"EST5", {0, 999}, "1969-Dec-31 ", "19:00:00.000 ", "-0500"},
        {"UTC", {0, 1500000}, "1970-Jan-01 ", "00:00:00.1500 ", "+0000"},
        {"UTC", {0, -1500}, "1970-Jan-01 ", "00:00:00.-001 ", "+0000"},
        {"UTC",
         {std::numeric_limits<time_t>::max(), 999999},
         "1970-Jan-01 ",
         "00:00:00.999 ",
         "+0000"},
        {"UTC", {std::numeric_limits<time_t>::min(), 0}, "1970-Jan-01 ", "00:00:00.000 ", "+0000"},
    };
    for (const Row& row : rows) {
        setenv("TZ", row.zone, 1);
        tzset();
        EXPECT_EQ(row.date + row.clock + row.offset, Utils::t_stamp_tz(row.time));
        EXPECT_EQ(row.date.substr(5) + row.clock, Utils::t_stamp(row.time, false));
        EXPECT_EQ(row.clock, Utils::t_stamp(row.time, true));
    }
}

static const char* const LINE = "[A-Z][a-z][a-z]-[0-9][0-9] [0-9:]+\\.[0-9][0-9][0-9]  ";

TEST(Logger, FiltersAndLaysOutLines)
{
    CaptureStdout();
    DBG->Log(DBG_ERROR, "before any group");
    EXPECT_EQ(-1, DBG->register_dbg_group(nullptr));
    DBG->init(nullptr);
    ConfigFile config = config_of("log.default=-1");
    faults.arm("pthread_mutex_init", 1, ENOMEM);
    DBG->init(&config);
    faults.arm("pthread_create", 1, EAGAIN);
    DBG->init(&config);
    DBG->dbg_stop();
    DBG->Log(DBG_WARN, "bare\ntext");
    DBG->Log(DBG_INFO, "filtered");
    EXPECT_EQ("Unable to init mutex for SimpleLogger. Error: 12\n"
              "Unable to create new thread for SimpleLogger. Error: 11\nbare\ntext\n",
              GetCapturedStdout());
    CaptureStdout();
    DBG->init(&config);
    DBG->dbg_stop();  // at once: must end the thread all the same
    DBG->init(&config);
    DebugGroup group(DBG_DEBUG, "NET");
    const int index = DBG->register_dbg_group(&group);
    EXPECT_EQ(3, index);  // behind "DEFAULT" of the two failures and of the success
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

// The log below a directory of the test's own, with a writer thread that has ended.
struct LogFile {
    explicit LogFile(const std::string& settings)
    {
        stop_the_clock();
        faults.set_root(root.path);
        std::filesystem::create_directories(dir);
        for (const char* const name : {"d_2020-01-01_00-00-00.log", "d_2020-01-01_00-00-01.log"})
            write_file(dir + name, name);
        std::filesystem::last_write_time(dir + "d_2020-01-01_00-00-01.log",
                                         std::filesystem::file_time_type::clock::now() -
                                             std::chrono::hours(1));
        config = std::make_unique<ConfigFile>(config_of("log.file=d\n" + settings));
    }
    std::string text() const { return read_file(dir + "d.log"); }
    auto files() const { return std::distance(std::filesystem::directory_iterator(dir), {}); }
    static void log(std::size_t bytes)
    {
        DBG->Log(DBG_ERROR,
                 std::string(bytes - dbg_format_line(DBG_ERROR, {}).size() - 1, 'm') + "\n");
    }
    TempDir root;
    const std::string dir = root / "var/log/current/";
    std::unique_ptr<ConfigFile> config;
};

TEST(Logger, WritesItsFileInBlocksAndNotesWhatWasLost)
{
    LogFile file("log.default=0");
    DBG->init(file.config.get());
    DBG->dbg_stop();
    EXPECT_EQ(1, file.files());  // the younger archive, though its name is older, is kept
    EXPECT_EQ("d_2020-01-01_00-00-00.log", read_file(file.dir + "d_2020-01-01_00-00-00.log"));
    struct Step {
        std::size_t logged;
        long seconds;  // since the last write
        std::size_t written;
    };
    std::size_t expected = 0;
    for (const Step& step : std::vector<Step>{
             {300, 6, 300}, {2500, 0, 2048}, {0, 5, 0}, {0, 6, 452}, {2048, 0, 2048}}) {
        if (step.logged > 0)
            LogFile::log(step.logged);
        faults.clock_shift += step.seconds;
        faults.arm("fsync", 0, 0);
        DBG->dbg_write_file(false, false);
        EXPECT_EQ(0, faults.calls("fsync"));
        EXPECT_EQ(expected += step.written, file.text().size()) << step.logged;
        faults.clock_shift -= step.written == 0 ? step.seconds : 0;
    }
    for (const std::size_t full : {102400U, 102401U}) {
        const std::size_t before = file.text().size();
        LogFile::log(full);
        for (int i = 0; i < 4; i++)
            LogFile::log(100);
        DBG->dbg_write_file(true, true);
        EXPECT_EQ(1, faults.calls("fsync"));
        faults.arm("fsync", 0, 0);
        const bool fits = full == 102400;  // and one more then
        EXPECT_EQ(std::string(fits ? "3" : "4") + "messages lost\n",
                  file.text().substr(
                      before + full + (fits ? 100 : 0) +
                      dbg_format_line(DBG_WARN, {"LOG FILE WRITE OVERFLOW: "}).size() - 1));
        EXPECT_EQ(1U, count("\n" + LogCapture::bare(file.text().substr(before + full)),
                            "\n [WARN] LOG FILE WRITE OVERFLOW: "));
    }
}

TEST(Logger, RotatesItsFileAtTwentyMegabytes)
{
    constexpr std::size_t LIMIT = 20971520;
    LogFile file("log.default=0");
    DBG->init(file.config.get());
    DBG->dbg_stop();
    const std::string live = file.dir + "d.log", archive = file.dir + "d_2023-11-14_22-13-20";
    const auto write = [&](bool flush_all) {
        LogFile::log(2500);
        DBG->dbg_write_file(false, flush_all);
    };
    for (const std::size_t size : {LIMIT - 1, LIMIT}) {
        write_file(live, "");
        std::filesystem::resize_file(live, size);
        write(true);
        if (size < LIMIT) {
            EXPECT_EQ(size + 2500, std::filesystem::file_size(live));
            write(false);  // whole, since it is the last
        }
        EXPECT_EQ(1, file.files());
    }
    EXPECT_EQ(LIMIT + 2500, std::filesystem::file_size(archive + "_002.log"));
}

TEST(Logger, PrintsWithoutItsFile)
{
    LogFile file("log.default=0");
    poll(nullptr, 0, 0);  // from now on memory can be refused
    Faults::set_watch([](std::string_view function, long /*unused*/, long /*unused*/) {
        if (function == "pthread_create")  // then comes the file
            faults.refuse_memory(4, 1);
    });
    CaptureStdout();
    DBG->init(file.config.get());
    EXPECT_EQ("Unable to open log file /var/log/current/d.logfor writing (std::bad_alloc). "
              "Using stdout instead.\n",
              GetCapturedStdout());
    DBG->dbg_stop();
    CaptureStdout();
    DBG->Log(DBG_ERROR, "text");
    DBG->dbg_write_file(false, false);
    EXPECT_EQ("[ERROR] text\n", LogCapture::bare(GetCapturedStdout()));
}
