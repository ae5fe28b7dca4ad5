// Fails every call that the daemon makes in a short life, one by one: once, or from then on.
// The first ones of each function by default; all of them when VOXSTAT_FULL_SWEEP is set.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>

#include "faults/daemon.h"

namespace {

// In each phase of a life come an end-of-session report, a voice record and a session report,
// which are written, and the last is posted, before the next phase begins.
constexpr int PHASES = 4, ALL = 3 * PHASES;

// What goes with a failure: its message; a message only where something was lost; none; the
// message and files that stay empty; the message and an end at once.
enum Manner { SAID, QUIET, SILENT, NO_FILES, ENDS };

// The most records and posts that may be missing, cut, or there twice, and of which kinds: session
// reports, end-of-session reports, voice. What was in its place before the failure stays there.
struct Cost {
    int records, posts;
    Manner manner = SAID;
    const char* kinds = "sev";
};
constexpr Cost NONE{0, 0}, NOTICE{0, 0, SILENT}, BLOCK{1, 0, QUIET}, BLOCKS{ALL, 0, QUIET},
    FILES{ALL, 0, NO_FILES}, POST{0, 1}, POSTS{0, PHASES}, BOTH{ALL, PHASES, NO_FILES},
    HEARING{ALL, PHASES}, REPORTS{ALL, PHASES, SAID, "se"}, LIFE{ALL, PHASES, ENDS};

struct Row {
    const char* function;
    int error;
    std::vector<std::string> messages;  // any of them, with its tag in the log
    // From this call on: once, or with all after it.
    std::vector<std::tuple<int, Cost, Cost>> costs;
    std::vector<std::string> in_turn{};  // and this one for the first call, the second ...
    int first = 1;
};

// clang-format off
const std::string THREAD = "Unable to create new thread for ", MUTEX = "Unable to init mutex for ",
                  ENDED = "[ERROR] Caught an exception: NetReceiver() ",
                  UNBOUND = "[ERROR] NetReceiver() unable to bind to port: ",
                  BLOCKING = "[ERROR] NetReceiver() unable to set O_NONBLOCK to port: ",
                  HANDLER = "[ERROR] Failed to register SIG",
                  OPTION = "curl_easy_setopt(CURLOPT_", FAILED = ") failed...\n";
const std::vector<std::string> WRITE_FAILED = {"[DEBUG] No space left on device (28) on writing to file /",
    "[DEBUG] Input/output error (5) on writing to file /", "[ERROR] Failed to write header to the /",
    "\nFailed to write header to the /"};
const Row ROWS[] = {
    {"open", EMFILE, {"[ERROR] Failed to open /", "\nFailed to open /"}, {{1, {1, 0}, {ALL, 0}}}},
    {"write", ENOSPC, WRITE_FAILED, {{1, BLOCK, BLOCKS}}},
    {"write", EIO, WRITE_FAILED, {{1, BLOCK, BLOCKS}}},
    {"write", Faults::SHORT_COUNT, {}, {{1, {1, 0, SILENT}, {ALL, 0, SILENT}}}},
    {"fsync", EIO, {}, {{1, NOTICE, NOTICE}}},
    {"stat", EACCES, {"[ERROR] Failed to retrieve file size of /", "\nFailed to retrieve file size of "},
     {{1, BLOCK, BLOCKS}}},
    {"rename", EACCES, {"[ERROR] Permission denied (13) on rotation (::rename) of /"}, {{1, {2, 0}, {4, 0}}}},
    {"remove", EACCES, {"[ERROR] FileObject::fobj_cleanup: failed to delete /"}, {{1, NONE, NONE}}},
    {"mkdir", EACCES, {"\nFailed to create directory ", "[ERROR] Failed to create directory "}, {{1, NONE, NONE}}},
    {"chown", EPERM, {}, {{1, NOTICE, NOTICE}}},
    {"opendir", EMFILE, {"[ERROR] FileObject::fobj_cleanup: failed to open "}, {{1, NONE, NONE}}},
    {"socket", EMFILE, {ENDED + "failed to create socket\n"}, {{1, LIFE, LIFE}}},
    {"bind", EACCES, {ENDED + "fatal error...\n"}, {{1, LIFE, LIFE}},
     {UNBOUND + "49999(errno: 13)\n", UNBOUND + "50000(errno: 13)\n"}},
    {"fcntl", EPERM, {ENDED + "fatal error...\n"},
     {{1, NOTICE, LIFE}, {4, LIFE, LIFE}},  // after a look at the three standard descriptors
     {"", "", "", BLOCKING + "49999(errno: 1)\n", BLOCKING + "49999(errno: 1)\n",
      BLOCKING + "50000(errno: 1)\n"}},
    {"poll", EINTR, {"[ERROR] NetReceiver select() failed: -1\n"}, {{1, NONE, HEARING}}},
    {"recvfrom", EIO, {"[ERROR] NetReceiver() recvfrom failed on port: "}, {{1, NONE, HEARING}}},
    {"pthread_create", EAGAIN, {"[ERROR] " + THREAD, "\n" + THREAD},  // one web worker will do
     {{1, NONE, BOTH}, {2, FILES, BOTH}, {3, NONE, POSTS}, {4, NONE, NONE}},
     {"\n" + THREAD + "SimpleLogger. Error: 11\n", "[ERROR] " + THREAD + "FileLogger. Error: 11\n",
      "[ERROR] " + THREAD + "WebClient. Error: 11\n"}},
    {"pthread_mutex_init", ENOMEM, {"[ERROR] " + MUTEX, "\n" + MUTEX},
     {{1, NONE, BOTH}, {2, FILES, BOTH}, {4, POSTS, POSTS}},
     {"\n" + MUTEX + "SimpleLogger. Error: 12\n", "[ERROR] " + MUTEX + "FileLogger. Error: 12,0\n",
      "[ERROR] " + MUTEX + "FileLogger. Error: 0,12\n", "[ERROR] " + MUTEX + "WebClient. Error: 12\n"}},
    {"signal", EINVAL, {"[ERROR] Failed to register SIG"}, {{1, NOTICE, NOTICE}, {3, NONE, NONE}},
     {"", "", HANDLER + "TERM signal handler...\n", HANDLER + "INT signal handler...\n",
      HANDLER + "QUIT signal handler...\n"}},
    {"asprintf", ENOMEM, {"[ERROR] Failed to allocate _"}, {{1, {1, 1, SAID, "se"}, REPORTS}},
     {"[ERROR] Failed to allocate _log_string event for QoS packet...\n",
      "[ERROR] Failed to allocate _http_log_string event for QoS packet...\n"}},
    {"curl_global_init", CURLE_FAILED_INIT, {"[ERROR] Unable to init curl library...\n"},
     {{1, POSTS, POSTS}}},
    {"curl_easy_init", CURLE_FAILED_INIT, {"[ERROR] Failed to initialize curl handle\n"},
     {{1, NONE, POSTS}, {2, NONE, NONE}}},
    {"curl_easy_setopt", CURLE_UNKNOWN_OPTION, {OPTION, "[ERROR] " + OPTION, "[ERROR] c" + OPTION},
     {{1, NONE, POSTS}, {9, {0, 0, QUIET}, POSTS}, {46, POST, POSTS}},  // 5 handles, 9 options each,
     {"\n" + OPTION + "HEADER" + FAILED, "\n" + OPTION + "VERBOSE" + FAILED,  // then bodies
      "\n" + OPTION + "DEBUGFUNCTION" + FAILED, "\n" + OPTION + "DEBUGDATA" + FAILED,
      "[ERROR] " + OPTION + "URL" + FAILED, "[ERROR] " + OPTION + "WRITEFUNCTION" + FAILED,
      "[ERROR] " + OPTION + "WRITEDATA" + FAILED, "[ERROR] c" + OPTION + "FAILONERROR" + FAILED}},
    {"curl_easy_setopt", CURLE_UNKNOWN_OPTION, {"[ERROR] " + OPTION}, {{46, POST, POSTS}},
     {"[ERROR] " + OPTION + "POSTFIELDS" + FAILED, "[ERROR] " + OPTION + "POSTFIELDSIZE" + FAILED}, 46},
    {"curl_easy_perform", CURLE_COULDNT_CONNECT,
     {"[ERROR] Unable to transmitt http - curl_easy_perform failed: 7\n"}, {{1, POST, POSTS}}},
};
// clang-format on

const std::string STAMP = "-01-01_00-00-00.txt";
const std::string SURPLUS = "QoS_Stat_Sessions_Summary_2000" + STAMP;  // one too many of its kind
const std::string OLDER[] = {SURPLUS, "QoS_Stat_Sessions_Summary_2001" + STAMP,
                             "QoS_Stat_Sessions_Summary_2002" + STAMP, "QoS_Stat_2001" + STAMP,
                             "RTP_Streams_No_Voice_2001-01-01_00-00-00.pcap"};

struct Life {
    const Row& row;
    int n;
    bool onwards, log_file;
    HttpServer server{};
    Daemon daemon{"log.default=4\nlog.http=2\nmax_file_size_rtp=50\nelastic_url=" + server.url +
                  (log_file ? "\nlog.file=d" : "")};
    std::string written{};
    int lost = 0, headless = 0;
    int intact = 0;  // phases that were over before the failure

    void run()
    {
        for (const std::string& name : OLDER)
            write_file(daemon.dir / name, name);
        daemon.faults->arm(row.function, n, row.error, onwards);
        daemon.start();
        const bool ends = cost().manner == ENDS;
        for (int phase = 1; phase <= PHASES && !ends; phase++) {
            const std::string number = std::to_string(phase);
            const bool last = phase == PHASES;
            daemon.send_qos("QOS_EV_TYPE=QOS_EOS_FAREND\nQOS_EV_RTCP_CNAME=e" + number);
            daemon.send_voice(voice_record("voice v" + number + "\n"));
            daemon.send_qos("QOS_EV_TYPE=QOS_FAREND\nQOS_EV_RTCP_CNAME=s" + number);
            EXPECT_TRUE(eventually([&] {  // again when a writer set its time after the jump
                daemon.faults->clock_shift += last ? 50 : 100;  // the last summary is not yet due
                return eventually([&] { return costs_no_more_than_it_may(phase, phase - last); },
                                  1);
            }));
            if (!reached())
                intact = phase - 2;  // a dump that cannot be moved away holds the two before
        }
        EXPECT_TRUE(ends || eventually([this] { return holds_its_files_only(); }));
        const bool deaf = row.function == std::string("signal") && n == 3;  // to SIGTERM
        EXPECT_EQ(0, ends ? daemon.wait() : daemon.stop(deaf ? SIGINT : SIGTERM));
        EXPECT_TRUE(costs_no_more_than_it_may(PHASES, PHASES)) << lost << " records are lost\n"
                                                               << daemon.said();
        EXPECT_LE(headless, cost().records);
        EXPECT_TRUE(written.empty() || (cost().manner != NO_FILES && !ends));
        for (const std::string& name : OLDER)
            EXPECT_TRUE(name == SURPLUS || read_file(daemon.dir / name) == name) << name;
        EXPECT_TRUE(reached() || read_file(daemon.dir / SURPLUS).empty());
        const std::string log = "\n" + daemon.said();
        const auto is_said = [&log](const std::string& text) {
            return count(log, text[0] == '\n' ? text : "\n" + text) > 0;
        };
        EXPECT_EQ(ends, is_said(ENDED + "fa"));
        // Nothing is asked of a log that cannot be written any more.
        const bool quiet =
            cost().manner == QUIET && (lost + headless == 0 || (onwards && log_file));
        if (!reached() || cost().manner == SILENT || quiet)
            return;
        EXPECT_TRUE(std::any_of(row.messages.begin(), row.messages.end(), is_said)) << log;
        const auto turn = static_cast<std::size_t>(n - row.first);
        if (turn < row.in_turn.size() && !onwards) {
            EXPECT_TRUE(is_said(row.in_turn[turn])) << row.in_turn[turn] << log;
        }
    }

    bool reached() const { return daemon.faults->calls(row.function) >= n; }

    Cost cost() const
    {
        Cost result = NONE;
        for (const auto& [first, when_once, when_onwards] : row.costs)
            if (reached() && n >= first)
                result = onwards ? when_onwards : when_once;
        return result;
    }

    // Looks at what the live files, the archives of this life and the server have.
    bool costs_no_more_than_it_may(int phases, int summaries)
    {
        written.clear();
        headless = lost = 0;
        for (const auto& entry : std::filesystem::directory_iterator(daemon.dir.path)) {
            const std::string& path = entry.path();
            if (entry.path().extension() == "" || count(path, "_200") > 0)
                continue;
            const std::string text = read_file(path);
            headless += text.find('\x01') != 20 && text.find(" SN RTCP_CNAME\n") > 176;
            written += text;
        }
        std::string posted;
        for (const HttpServer::Request& request : server.requests())
            posted += request.body;
        int lost_posts = 0;
        for (int phase = 1; phase <= phases; phase++) {
            const std::string number = std::to_string(phase);
            const int one = phase > intact ? 1 : ALL + 1;  // too many at once
            lost_posts += count(posted, " s" + number + "\"}") != 1 ? one : 0;
            for (const char kind : std::string("sev")) {
                const bool may_be = phase > intact && strchr(cost().kinds, kind) != nullptr;
                if ((phase <= summaries || kind != 'e') &&
                    count(written, std::string(" ") + kind + number + "\n") != 1)
                    lost += may_be ? 1 : ALL + 1;
            }
        }
        return lost <= cost().records && lost_posts <= cost().posts;
    }

    // Each once, and none that has gone; a directory is open only while it is read.
    bool holds_its_files_only() const
    {
        std::set<std::string> files = {"/QoS_Stat.txt", "/QoS_Stat_Sessions_Summary.txt",
                                       "/RTP_Streams_No_Voice.pcap", "/root/var/log/current/d.log",
                                       "/stdout"};
        const std::string &dir = daemon.dir.path, table = "/proc/" + std::to_string(daemon.pid);
        std::error_code gone;
        bool result = true;
        for (const auto& entry : std::filesystem::directory_iterator(table + "/fd", gone)) {
            const std::string target = std::filesystem::read_symlink(entry.path(), gone);
            result &= !target.starts_with(dir) || files.erase(target.substr(dir.size())) == 1;
        }
        return result;
    }
};

class FaultSweep : public testing::TestWithParam<std::size_t> {};  // the number of a row

}  // namespace

TEST_P(FaultSweep, CostsNoMoreThanItMay)
{
    const Row& row = ROWS[GetParam()];
    const bool full = std::getenv("VOXSTAT_FULL_SWEEP") != nullptr;
    std::set<int> calls;
    for (int i = 0; i < (full ? 10000 : std::max(3, static_cast<int>(row.in_turn.size()))); i++)
        calls.insert(row.first + i);
    for (const auto& [from, once, onwards] : row.costs)
        calls.insert(from);
    std::atomic<int> points{0};
    for (const int mode : full ? std::vector{0, 1, 2, 3} : std::vector{0}) {
        const bool onwards = mode % 2 == 1, log_file = mode < 2;
        if (onwards && row.function == std::string("signal"))
            continue;  // nothing would stop it
        std::mutex mutex;
        auto next = calls.begin();
        const auto live = [&] {
            for (;;) {
                mutex.lock();
                const int n = next == calls.end() || HasFailure() ? 0 : *next++;
                mutex.unlock();
                if (n == 0)
                    return;
                SCOPED_TRACE(row.function + (" #" + std::to_string(n)) +
                             (onwards ? " and on" : "") + (log_file ? ", log in a file" : ""));
                Life life{row, n, onwards, log_file};
                life.run();
                if (life.reached()) {
                    points++;
                } else {
                    const std::lock_guard lock(mutex);
                    next = calls.end();  // none is left
                }
            }
        };
        std::vector<std::jthread> lives(8);
        for (std::jthread& thread : lives)
            thread = std::jthread(live);
    }
    EXPECT_LT(0, points);
    printf("faults: %d of %s\n", points.load(), row.function);
}

INSTANTIATE_TEST_SUITE_P(Of, FaultSweep, testing::Range<std::size_t>(0, std::size(ROWS)),
                         [](const auto& number) {
                             return ROWS[number.param].function +
                                    ("_" + std::to_string(number.param));
                         });
