// The rotating file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "files/file_object.h"
#include "unit/harness.h"

static Faults& faults = Faults::self();

static std::map<std::string, std::uintmax_t> sizes_of(const TempDir& dir)
{
    std::map<std::string, std::uintmax_t> sizes;
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
        faults.arm("fsync", 0, 0);
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
    umask(0);
    LogCapture log;
    const TempDir dir;
    const std::string path = dir / "new/F.txt", archive = dir / "new/F_2023-11-14_22-13-20";
    long owner = -1, group = -1;
    Faults::set_watch([&](std::string_view function, long first, long second) {
        if (function == "chown")
            owner = first, group = second;
    });
    {
        FileObject file("header\n", 7, dir / "new", "F", ".txt", 20, 2);
        struct stat made {};
        EXPECT_EQ(0, stat((dir / "new").c_str(), &made));
        EXPECT_EQ(0744U, made.st_mode & 0777U);
        EXPECT_EQ(500, owner);
        EXPECT_EQ(500, group);
        write_file(archive + "_003.txt", "somebody's");  // not this object's name to take
        using Clock = std::filesystem::file_time_type::clock;
        last_write_time(std::filesystem::path(archive + "_003.txt"),
                        Clock::now() + std::chrono::hours(1));
        file.fobj_open();
        file.fobj_open();
        EXPECT_EQ(0, stat(path.c_str(), &made));
        EXPECT_EQ(0644U, made.st_mode & 0777U);
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
                  rotated + ".txt\n" + opened + rotated + "_002.txt\n" + deleted + ".txt\n" +
                  opened + rotated + "_004.txt\n" + deleted + "_002.txt\n" + opened + rotated +
                  "_005.txt\n" + deleted + "_004.txt\n" + closed + closed,
              log.take());
}

TEST(FileObject, NamesEveryCallThatFails)
{
    static const std::string DIR = "/home/build/zkhome/", PATH = DIR + "F.txt";
    static const std::string ARCHIVE = DIR + "F_2023-11-14_22-13-20.txt";
    static const std::string moved = " (13) on rotation (::rename) of " + PATH + " to " + ARCHIVE;
    struct Row {
        const char *function, *second;  // "": only one
        int error, result;              // of a write of 15 bytes to a file of 20, its limit
        std::size_t live;               // bytes at the end
        std::string logged, thrown;
    };
    const std::string opened = " [INFO] Opened for writing " + PATH + "\n",
                      closed = opened + " [INFO] Closed file: " + PATH + "\n",
                      rotated = closed + "[TRACE] " + PATH + " rotated to " + ARCHIVE + "\n",
                      failed = "[ERROR] FileObject::fobj_cleanup: failed to ",
                      removed = " [INFO] FileObject::fobj_cleanup: successfully deleted " + DIR;
    const Row rows[] = {
        {"mkdir", "", EACCES, 15, 0,
         "[ERROR] Failed to create directory " + DIR + " (13: Permission denied)\n" + rotated +
             removed + "F_2020-01-01_00-00-00.txt\n" + removed + "F_2020-01-01_00-00-01.txt\n",
         ""},
        {"open", "", EMFILE, 0, 20, "", "Failed to open " + PATH},
        {"stat", "", EIO, 0, 20, opened, "Failed to retrieve file size of " + PATH},
        {"write", "", ENOSPC, -1, 20,
         opened + "[DEBUG] No space left on device (28) on writing to file " + PATH + "\n", ""},
        {"rename", "", EACCES, 15, 0,
         closed + "[ERROR] Permission denied" + moved + "; deleted file instead.\n", ""},
        {"rename", "remove", EACCES, 15, 35,
         closed + "[ERROR] Permission denied" + moved + "\nPermission denied (13) on ::remove " +
             PATH + "\n",
         ""},
        {"opendir", "", EMFILE, 15, 0,
         rotated + failed + "open " + DIR + "; Too many open files (24)\n", ""},
        {"remove", "", EPERM, 15, 0,
         rotated + failed + "delete " + DIR +
             "F_2020-01-01_00-00-00.txt; Operation not permitted (1)\n" + removed +
             "F_2020-01-01_00-00-01.txt\n",
         ""},
    };
    for (const Row& row : rows) {
        stop_the_clock();
        LogCapture log;
        const TempDir root;
        faults.set_root(root.path);
        faults.disarm();
        std::filesystem::create_directories(root.path + DIR);
        write_file(root.path + PATH, std::string(20, 'e'));
        for (const char* const name : {"F_2020-01-01_00-00-00.txt", "F_2020-01-01_00-00-01.txt"})
            write_file(root.path + DIR + name, "");
        faults.arm(row.function, 1, row.error);
        if (*row.second != '\0')
            faults.arm(row.second, 1, row.error);
        FileObject file("header\n", 7, DIR, "F", ".txt", 20, 1);
        std::string thrown;
        int result = 0;
        try {
            result = file.fobj_write("fifteen bytes.\n", false);
        } catch (const std::runtime_error& error) {
            thrown = error.what();
        }
        EXPECT_EQ(row.result, result) << row.function;
        EXPECT_EQ(row.thrown, thrown);
        EXPECT_EQ(row.live, read_file(root.path + PATH).size()) << row.function;
        EXPECT_EQ(row.logged, log.take());
    }
}

TEST(FileObject, CountsTheBytesThatWereWritten)
{
    const TempDir dir;
    FileObject file(nullptr, 7, dir.path, "F", ".txt", 15, 4);
    faults.arm("write", 1, Faults::SHORT_COUNT);
    EXPECT_EQ(10, file.fobj_write(std::string(20, 'w'), false));
    faults.arm("write", 1, ENOSPC);
    EXPECT_EQ(-1, file.fobj_write(std::string(20, 'w'), false));
    EXPECT_EQ(5, file.fobj_write(std::string(5, 'w'), false));
    EXPECT_EQ(15U, sizes_of(dir)["F.txt"]);  // began below its limit
    EXPECT_EQ(1, file.fobj_write("w", false));
    EXPECT_EQ(0U, sizes_of(dir).count("F.txt"));
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
        T_2026-03-03_14-05-09.txt 99        S_2026-03-03_14-05-0.txt 99
        S_2026-03-03T14-05-09.txt 99        S_2026-o3-03_14-05-09.txt 99
        S_2026-03-03_14-05-09x002.txt 99    S_2026-03-03_14-05-09_0x2.txt 99)");
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
