// The diagnostic log.
#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
#include <thread>

#include "log/simple_logger.h"
#include "unit/harness.h"

static Faults& faults = Faults::self();

TEST(Logger, FiltersAndLaysOutLines)
{
    stop_the_clock();
    const TempDir root;
    faults.set_root(root.path);
    poll(nullptr, 0, 0);  // from now on, allocations can fail
    Faults::set_watch([](std::string_view function, long /*unused*/, long /*unused*/) {
        if (function == "pthread_create")  // the file object follows
            faults.refuse_memory(3, 1);
    });
    ConfigFile config = config_of("log.default=-1\nlog.file=d");
    EXPECT_EQ("Unable to create new thread for SimpleLogger. Error: 11\nbare\ntext\n"
              "Unable to open log file /var/log/current/d.logfor writing (std::bad_alloc). "
              "Using stdout instead.\n",
              printed([&config] {
                  DBG->Log(DBG_ERROR, "before any group");
                  EXPECT_EQ(-1, DBG->register_dbg_group(nullptr));
                  DBG->init(nullptr);
                  faults.arm("pthread_create", 1, EAGAIN);
                  DBG->init(&config);
                  DBG->Log(DBG_WARN, "bare\ntext");
                  DBG->Log(DBG_INFO, "filtered");
                  DBG->init(&config);
                  DBG->dbg_stop();  // immediately: must stop the thread too
                  DBG->init(&config);
              }));
    DebugGroup group(DBG_DEBUG, "NET");
    int index = 0;
    for (int groups = 2; groups < 100;
         groups++) {  // after "DEFAULT" of the failure and of the success
        index = DBG->register_dbg_group(&group);
        EXPECT_EQ(groups, index);
    }
    const std::string lines = printed([index] {
        for (const int level : {-1, 0, 1, 2, 3, 4, 5})
            DBG->Log(index, static_cast<DbgLevel>(level), "t");
        for (const int none : {index + 1, -1})
            DBG->Log(none, DBG_ERROR, "no such group");
        DBG->Log(DBG_INFO, "filtered");
        DBG->dbg_write_file(false, false);
    });
    char id[24];
    snprintf(id, sizeof id, " [0x%lx] t\n", static_cast<unsigned long>(pthread_self()) & 0xFFFFFF);
    EXPECT_EQ(6U, count(lines, id));
    EXPECT_EQ(6U, count(lines, "Nov-14 22:13:20.250  "));
    EXPECT_EQ("[UNKNOWN] t\n[ERROR] t\n [WARN] t\n [INFO] t\n[TRACE] t\n[DEBUG] t\n",
              LogCapture::bare(lines));
    EXPECT_EQ(0U, count(printed([] {  // only a file gets the note
                            DBG->Log(DBG_ERROR, std::string(102401, 'm'));
                            DBG->Log(DBG_ERROR, "lost");
                            DBG->dbg_write_file(false, false);
                        }),
                        "OVERFLOW"));
}

// The log in a directory of the test, with a writer thread that exits immediately.
struct LogFile {
    LogFile()
    {
        stop_the_clock();
        faults.set_root(root.path);
        std::filesystem::create_directories(dir);
        for (const char* const name : {"d_2020-01-01_00-00-00.log", "d_2020-01-01_00-00-01.log"})
            write_file(dir + name, name);
        set_age(dir + "d_2020-01-01_00-00-01.log", 1);
        EXPECT_EQ("", printed([this] {
                      DBG->init(&config);
                      DBG->dbg_stop();
                  }));
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
    ConfigFile config = config_of("log.file=d");
};

TEST(Logger, WritesItsFileInBlocksAndNotesWhatWasLost)
{
    const LogFile file;
    EXPECT_EQ(1, file.files());  // the younger archive, though its name is older, is kept
    EXPECT_EQ("d_2020-01-01_00-00-00.log", read_file(file.dir + "d_2020-01-01_00-00-00.log"));
    const auto size = [&file](std::size_t logged, long seconds_later) {  // of the file then
        if (logged > 0)
            LogFile::log(logged);
        faults.clock_shift += seconds_later;
        DBG->dbg_write_file(false, false);
        return file.text().size();
    };
    faults.arm("open", 1, EMFILE);
    EXPECT_THROW(size(100, 0), std::runtime_error);  // lost, and does not hold up the next
    faults.arm("fsync", 0, 0);
    EXPECT_EQ(300U, size(300, 0));
    EXPECT_EQ(300U + 2048, size(2500, 0));
    EXPECT_EQ(300U + 2048, size(0, 5));
    std::size_t expected = 300 + 2500;
    EXPECT_EQ(expected, size(0, 1));
    poll(nullptr, 0, 0);  // from now on, allocations can fail
    for (const std::size_t full : {102400U, 102401U}) {
        LogFile::log(full);
        faults.refuse_memory(1, 1);
        DBG->Log(DBG_ERROR, "no memory for this");
        std::atomic<bool> logged{false};  // relaxed: the lost messages have their own lock
        const std::jthread other([&logged] {
            for (int i = 0; i < 4; i++)
                LogFile::log(100);
            logged.store(true, std::memory_order_relaxed);
        });
        EXPECT_TRUE(eventually([&logged] { return logged.load(std::memory_order_relaxed); }));
        DBG->dbg_run();  // writes everything and returns, because the logger is stopped
        EXPECT_EQ(full == 102400 ? 1 : 2, faults.calls("fsync"));
        expected += full + (full == 102400 ? 100 : 0);  // then one more fits
        const std::string note = file.text().substr(expected);
        EXPECT_EQ(std::string(" [WARN] LOG FILE WRITE OVERFLOW: ") + (full == 102400 ? "4" : "5") +
                      "messages lost\n",
                  LogCapture::bare(note));
        expected += note.size();
    }
}

TEST(Logger, RotatesItsFileAtTwentyMegabytes)
{
    constexpr std::size_t LIMIT = 20971520;
    const LogFile file;
    const std::string live = file.dir + "d.log", archive = file.dir + "d_2023-11-14_22-13-20";
    for (const std::size_t size : {LIMIT - 1, LIMIT}) {
        write_file(live, "");
        std::filesystem::resize_file(live, size);
        LogFile::log(2500);
        DBG->dbg_write_file(false, true);
        if (size < LIMIT) {
            EXPECT_EQ(size + 2500, std::filesystem::file_size(live));
            LogFile::log(2500);
            DBG->dbg_write_file(false, false);  // all, because it is the last
        }
        EXPECT_EQ(1, file.files());
    }
    EXPECT_EQ(LIMIT + 2500, std::filesystem::file_size(archive + "_002.log"));
}
