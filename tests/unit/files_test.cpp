// The rotating file.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <utility>

#include "files/file_object.h"
#include "log/guarded.h"
#include "log/simple_logger.h"
#include "unit/harness.h"

static Faults& faults = Faults::self();

// "~" is the directory.
static const std::string OPENED = " [INFO] Opened for writing ~F.txt\n",
                         CLOSED = " [INFO] Closed file: ~F.txt\n",
                         DELETED = " [INFO] FileObject::fobj_cleanup: successfully deleted ~";

TEST(FileObject, RotatesAfterTheFirstWriteThatBeginsAtTheLimit)
{
    struct Row {
        const char* what;
        int existing;  // bytes; -1: no file
        unsigned limit;
        int writes;                 // of 600 bytes, after a header of 7
        std::size_t live, archive;  // bytes at the end; 0: none
    };
    static const Row rows[] = {{"at the limit", -1, 607, 1, 607, 0},
                               {"a write more", -1, 607, 2, 0, 1207},
                               {"one below the limit", -1, 608, 3, 0, 1807},
                               {"the next file", -1, 608, 4, 607, 1807},
                               {"empty file", 0, 5000, 1, 607, 0},
                               {"file without a header", 10, 5000, 1, 610, 0},
                               {"file one below the limit", 999, 1000, 2, 0, 2199},
                               {"full file", 1000, 1000, 1, 0, 1600}};
    stop_the_clock();
    for (const Row& row : rows) {
        const TempDir dir;
        if (row.existing >= 0)
            write_file(dir / "F.txt", std::string(static_cast<std::size_t>(row.existing), 'e'));
        FileObject file("header\n", 7, dir.path, "F", ".txt", row.limit, 4);
        faults.arm("fsync", 0, 0);
        for (int i = 0; i < row.writes; i++)
            EXPECT_EQ(600, file.fobj_write(std::string(600, 'w'), false));
        EXPECT_EQ(row.archive > 0 ? 1 : 0, faults.calls("fsync"));
        auto sizes = sizes_of(dir);
        EXPECT_EQ(row.live, sizes["F.txt"]) << row.what;
        EXPECT_EQ(row.archive, sizes["F_2023-11-14_22-13-20.txt"]) << row.what;
        const bool full =
            row.live == row.limit;  // its next write is the last, and writes everything
        if (row.live > 0) {
            std::string buffer(1100, 'b');
            EXPECT_EQ(full ? 1100U : 1024U, file.fobj_take_block(buffer, NOW, 0, false).size());
        }
    }
}

TEST(FileObject, ReportsEveryEventAndNeverReusesAnArchiveName)
{
    stop_the_clock();
    umask(0);
    LogCapture log;
    const TempDir dir;
    const auto mode_of = [](const std::string& path) {
        using namespace std::filesystem;
        return static_cast<int>(status(path).permissions() & perms::all);
    };
    const std::string theirs = dir / "new/F_2023-11-14_22-13-20_003.txt";  // an existing name
    std::string owned;
    Faults::set_watch([&](std::string_view function, long path, long owner) {
        if (function == "chown")
            owned += reinterpret_cast<const char*>(path) + (' ' + std::to_string(owner));
    });
    for (const int ids : {500500, 500001, 1500}) {  // user and group that create the directory
        faults.arm("geteuid", 1, ids / 1000);
        faults.arm("getegid", 1, ids % 1000);
        const std::string path = dir / std::to_string(ids);
        (void)FileObject(nullptr, 0, path, "F", ".txt", 20, 2);
        EXPECT_EQ(ids == 500500 ? "" : path + "/ 500500", std::exchange(owned, ""));
    }
    LogCapture::take();
    {
        FileObject file("header\n", 7, dir / "new", "F", ".txt", 20, 2);
        EXPECT_EQ(0744, mode_of(dir / "new"));
        EXPECT_EQ(dir / "new/ 500500", owned);
        write_file(theirs, "");
        set_age(theirs, -1);
        file.fobj_open();
        file.fobj_open();
        EXPECT_EQ(0644, mode_of(dir / "new/F.txt"));
        EXPECT_EQ(0, file.fobj_write("", true));
        for (int i = 0; i < 8; i++)
            file.fobj_write("fifteen bytes.\n", false);
        file.fobj_close();
    }
    const std::string opened = OPENED + "[DEBUG] Written file header to ~F.txt(7 bytes)\n",
                      rotated = CLOSED + "[TRACE] ~F.txt rotated to ~F_2023-11-14_22-13-20",
                      deleted = DELETED + "F_2023-11-14_22-13-20";
    EXPECT_EQ(opened + " [INFO] Ignoring file open request, file already open: ~F.txt\n" + rotated +
                  ".txt\n" + opened + rotated + "_002.txt\n" + deleted + ".txt\n" + opened +
                  rotated + "_004.txt\n" + deleted + "_002.txt\n" + opened + rotated +
                  "_005.txt\n" + deleted + "_004.txt\n" + CLOSED + CLOSED,
              replaced(log.take(), dir / "new/", "~"));
}

TEST(FileObject, NamesEveryCallThatFails)
{
    struct Row {
        std::string functions;
        int error;         // of the first; one less of the second
        int result;        // of a write of 15 bytes to a file of 20, its limit
        std::size_t live;  // bytes at the end
        std::string logged;
    };
    const std::string closed = OPENED + CLOSED, names = "~F.txt to ~F_2023-11-14_22-13-20.txt",
                      moved = closed + "[TRACE] " + replaced(names, "to", "rotated to") + "\n",
                      unmoved = " (13) on rotation (::rename) of " + names,
                      failed = moved + "[ERROR] FileObject::fobj_cleanup: failed to ",
                      first = "F_2020-01-01_00-00-00.txt", second = "F_2020-01-01_00-00-01.txt";
    const Row rows[] = {
        {"mkdir", EACCES, 15, 0,
         "[ERROR] Failed to create directory ~ (13: Permission denied)\n" + moved + DELETED +
             first + "\n" + DELETED + second + "\n"},
        {"open", EMFILE, 0, 20, "[ERROR] Failed to open ~F.txt\n"},
        {"stat", EIO, 0, 20, OPENED + "[ERROR] Failed to retrieve file size of ~F.txt\n"},
        {"write", ENOSPC, -1, 20,
         OPENED + "[DEBUG] No space left on device (28) on writing to file ~F.txt\n"},
        {"rename", EACCES, 15, 0,
         closed + "[ERROR] Permission denied" + unmoved + "; deleted file instead.\n"},
        {"rename remove", EACCES, 15, 35,
         closed + "[ERROR] Permission denied" + unmoved +
             "\nCannot allocate memory (12) on ::remove ~F.txt\n"},
        {"opendir", EMFILE, 15, 0, failed + "open ~; Too many open files (24)\n"},
        {"remove", EPERM, 15, 0,
         failed + "delete ~" + first + "; Operation not permitted (1)\n" + DELETED + second + "\n"},
    };
    stop_the_clock();
    for (const Row& row : rows) {
        LogCapture log;
        const TempDir dir;
        write_file(dir / "F.txt", std::string(20, 'e'));
        for (const std::string& name : {first, second})
            write_file(dir / name, "");
        faults.disarm();
        std::istringstream functions(row.functions);
        int error = row.error;
        for (std::string function; functions >> function;)
            faults.arm(function, 1, error--);
        FileObject file("header\n", 7, dir.path, "F", ".txt", 20, 1);
        int result = 0;
        guarded([&] { result = file.fobj_write("fifteen bytes.\n", false); },
                [](const char* reason) { DBG->Log(DBG_ERROR, reason); });
        EXPECT_EQ(row.logged, replaced(log.take(), dir / "", "~"));
        EXPECT_EQ(row.result, result) << row.functions;
        EXPECT_EQ(row.live, read_file(dir / "F.txt").size()) << row.functions;
    }
}

// A slow disk, a rotation that fails, and no memory for the name of the archive.
TEST(FileObject, RetriesARotationAndNamesTheArchiveAfterTheClose)
{
    stop_the_clock();
    const TempDir dir;
    FileObject file(nullptr, 0, dir.path, "F", ".txt", 1, 9);
    const auto write = [&file](const char* text) { return file.fobj_write(text, false); };
    write("a");
    faults.arm("rename", 1, EACCES);
    faults.arm("remove", 1, EACCES);
    write("b");
    write("c");
    EXPECT_EQ("abc", read_file(dir / "F_2023-11-14_22-13-20.txt"));
    write("d");
    poll(nullptr, 0, 0);  // from now on, allocations can fail
    faults.refuse_memory(1, 1);
    EXPECT_THROW(write("e"), std::bad_alloc);
    Faults::set_watch([](std::string_view function, long /*unused*/, long /*unused*/) {
        if (function == "fsync")
            faults.clock_shift += 5;
    });
    write("f");
    EXPECT_EQ("def", read_file(dir / "F_2023-11-14_22-13-25.txt"));
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
    EXPECT_EQ(15U, sizes_of(dir)["F.txt"]);  // was below its limit
    EXPECT_EQ(1, file.fobj_write("w", false));
    EXPECT_EQ(0U, sizes_of(dir).count("F.txt"));
}

TEST(FileObject, RemovesTheOldestOfItsOwnArchivesOnly)
{
    LogCapture log;
    const TempDir dir;
    std::filesystem::create_directory(dir / "S_2020-01-01_00-00-00.txt");
    // Names and ages in hours: the first three must be deleted, in this order, and no others.
    std::istringstream files(R"(
        S_2026-03-09_14-05-09.txt 90        S_2026-03-03_14-05-09.txt 50
        S_2026-03-03_14-05-09_002.txt 50    S_2026-03-03_14-05-09_1000.txt 50
        S_2026-03-01_14-05-09.txt 10        S.txt 99
        S_Sum.txt 99                        S_Sum_2026-03-03_14-05-09.txt 99
        S_2026-03-03_14-05-09.log 99        S_2026-03-03_14-05-09_02.txt 99
        T_2026-03-03_14-05-09.txt 99        S_2026-03-03_14-05-0.txt 99
        S_2026-03-03T14-05-09.txt 99        S_2026-o3-03_14-05-09.txt 99
        S_2026-03-03_14-05-09x002.txt 99    S_2026-03-03_14-05-09_0x2.txt 99)");
    std::string name, removed;
    int number = 0;
    for (int hours = 0; files >> name >> hours; number++) {
        write_file(dir / name, "x");
        set_age(dir / name, hours);
        if (number < 3)
            removed += DELETED + name + "\n";
    }
    FileObject file(nullptr, 0, dir.path, "S", ".txt", 100, 2);
    file.fobj_cleanup();
    EXPECT_EQ(removed, replaced(log.take(), dir / "", "~"));
    EXPECT_EQ(static_cast<std::size_t>(number - 3 + 1), sizes_of(dir).size());
}
