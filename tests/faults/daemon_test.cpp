// The whole daemon, from datagrams to files, log, posts and exit status.
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <numeric>
#include <regex>

#include "faults/daemon.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

static const std::string STAT_HEADER =
    "       Date         Time    TZ      GCID         TID     Type      Far_End_IP  Port Packets "
    "Lost Lost% Jitter   RTT       SSRC    SN RTCP_CNAME\n";
static const std::string EOS_HEADER =
    "       Date         Time    TZ      GCID         TID     Type      Far_End_IP  Port  Span "
    "Packets Lost Lost% JTRAvg JTRMax RTTAvg RTTMax First Packet Last  Packet       SSRC    SN "
    "RTCP_CNAME\n";
static const std::string STAT_LINE =
    "1970-Jan-01 00:00:00.000 +0000                       near_end                     0       0   "
    " 0   0.0      0     0            ";
static const std::string SESSION = "QOS_EV_TYPE=QOS_NEAREND\nQOS_EV_RTCP_CNAME=";
static const std::string SUMMARY = "QOS_EV_TYPE=QOS_EOS_FAREND\nQOS_EV_RTCP_CNAME=";

TEST(Daemon, ExplainsItsUse)
{
    const std::string usage = "Usage: voxstat [-f <filename>]\nIf filename is missing then default "
                              "voxstat.cfg is assumed.\n";
    const std::pair<const char*, const char*> rows[] = {
        {"", "Failed to open config file: voxstat.cfg\n"},
        {"-f none", "Failed to open config file: none\n"},
        {"-f", ""},
        {"-x stdout", ""},
        {"-F stdout", ""},
        {"-f stdout extra", ""}};
    for (const auto& [arguments, reason] : rows) {
        Daemon daemon("");
        daemon.spawn(arguments);
        EXPECT_EQ(0, daemon.wait());
        EXPECT_EQ(reason + usage, daemon.output()) << arguments;
    }
}

TEST(Daemon, WritesItsFilesAndEndsAtEachSignal)
{
    for (const int signal : {SIGTERM, SIGINT, SIGQUIT}) {
        Daemon daemon("log.default=2\nlog.http=2");
        write_file(daemon.dir / "sn", "serial: AB12\n");
        daemon.start();
        daemon.send_qos(SESSION + "first");
        EXPECT_TRUE(daemon.holds("QoS_Stat.txt", "first\n"));
        daemon.send_qos(SUMMARY + "second");
        EXPECT_TRUE(daemon.holds("QoS_Stat_Sessions_Summary.txt", "second\n"));
        daemon.send_voice(voice_record("rtp") + voice_record(std::string(2000, 'l')) +
                          voice_record("x", 2));
        EXPECT_TRUE(daemon.printed("RTP_Streams_No_Voice.pcap"));
        daemon.send_qos(SESSION + "still in the buffer at the stop");
        EXPECT_TRUE(daemon.printed("Dropped the rest"));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(0, daemon.stop(signal));
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));

        EXPECT_EQ(STAT_HEADER + STAT_LINE + " AB12 first\n" + STAT_LINE +
                      " AB12 still in the buffer at the stop\n",
                  read_file(daemon.dir / "QoS_Stat.txt"));
        EXPECT_EQ(EOS_HEADER + STAT_LINE.substr(0, 83) +
                      "     0       0    0   0.0      0      0      0      0 00:00:00.000 "
                      "00:00:00.000             AB12 second\n",
                  read_file(daemon.dir / "QoS_Stat_Sessions_Summary.txt"));
        const std::string dump = read_file(daemon.dir / "RTP_Streams_No_Voice.pcap");
        EXPECT_EQ(bytes("D4C3B2A1 0200 0400 00000000 00000000 FFFF0000 01000000"),
                  dump.substr(0, 24));
        EXPECT_EQ(24U + 61 + 58, dump.size());  // of the second record the headers only

        std::string log = LogCapture::bare(daemon.output());
        for (const auto& [text, name] : {std::pair{daemon.dir.path + "/", "DIR/"},
                                         {std::to_string(daemon.port), "QOS"},
                                         {std::to_string(daemon.port + 1), "VOICE"}})
            log = std::regex_replace(log, std::regex(text), name);
        EXPECT_THAT(log,
                    StartsWith(" [INFO] NetReceiver is listening on port QOS\n"
                               " [INFO] NetReceiver is listening on port VOICE\n"
                               " [WARN] Empty URL value for WebClient. HTTP reporting is "
                               "unavailable.\n [INFO] Serial Number: AB12\n"
                               " [INFO] Opened for writing DIR/QoS_Stat.txt\n"
                               " [INFO] Opened for writing DIR/QoS_Stat_Sessions_Summary.txt\n"));
        EXPECT_THAT(log, EndsWith(" [INFO] NetReceiver closing port QOS\n"
                                  " [INFO] NetReceiver closing port VOICE\n"
                                  " [INFO] Terminating FileLogger thread...\n"
                                  " [INFO] Closed file: DIR/QoS_Stat.txt\n"
                                  " [INFO] Closed file: DIR/QoS_Stat_Sessions_Summary.txt\n"
                                  " [INFO] Closed file: DIR/RTP_Streams_No_Voice.pcap\n"
                                  " [INFO] WebClient stat: Lines Sent=0; Bytes Sent=0\n"
                                  " [INFO] Terminating application...\n"
                                  " [INFO] Terminating SimpleLogger thread...\n"));
    }
}

TEST(Daemon, ReadsReportsBeforeVoice)
{
    Daemon daemon("log.network=4");
    daemon.start();
    kill(daemon.pid, SIGSTOP);
    daemon.send_voice(voice_record("v"));
    daemon.send_qos(SESSION + "late");
    kill(daemon.pid, SIGCONT);
    EXPECT_TRUE(daemon.printed(">>>>> New Voice packet: 25 bytes"));
    EXPECT_EQ(1U, count(daemon.output().substr(0, daemon.output().find(">>>>> New Voice")),
                        ">>>>> New QoS packet:\n" + SESSION + "late\n"));
    EXPECT_EQ(0, daemon.stop());
}

TEST(Daemon, KeepsItsLogInAFile)
{
    Daemon daemon("log.file=d\nlog.default=2", true);
    daemon.start();
    EXPECT_EQ(0, daemon.stop());
    EXPECT_EQ(1, daemon.faults->calls("fsync"));  // of the last block
    EXPECT_EQ("Initialized logging. File name: /var/log/current/d.log\n", daemon.output());
    const std::string log = LogCapture::bare(read_file(daemon.dir / "log/d.log"));
    EXPECT_THAT(log, HasSubstr(" [INFO] Opened for writing /var/log/current/d.log\n"));
    EXPECT_THAT(
        log,
        EndsWith(
            " [INFO] Terminating application...\n [INFO] Terminating SimpleLogger thread...\n"));
}

struct Fault {
    const char* function;
    int n, error;
    std::string message;
};

// What the sweep over all calls does not ask for: the wording of each message.
TEST(Daemon, NamesTheCallThatFails)
{
    static const std::string mutex = "Unable to init mutex for ",
                             option = "curl_easy_setopt(CURLOPT_";
    static const std::string thread = "Unable to create new thread for ";
    const Fault faults[] = {
        {"signal", 3, EINVAL, "] Failed to register SIGTERM signal handler"},
        {"signal", 4, EINVAL, "] Failed to register SIGINT signal handler"},
        {"signal", 5, EINVAL, "] Failed to register SIGQUIT signal handler"},
        {"pthread_mutex_init", 1, ENOMEM, "\n" + mutex + "SimpleLogger. Error: 12\n"},
        {"pthread_mutex_init", 2, ENOMEM, mutex + "FileLogger. Error: 12,0\n"},
        {"pthread_mutex_init", 3, ENOMEM, mutex + "FileLogger. Error: 0,12\n"},
        {"pthread_mutex_init", 4, ENOMEM, mutex + "WebClient. Error: 12\n"},
        {"pthread_create", 1, EAGAIN, "\n" + thread + "SimpleLogger. Error: 11\n"},
        {"pthread_create", 2, EAGAIN, thread + "FileLogger. Error: 11\n"},
        {"pthread_create", 3, EAGAIN, thread + "WebClient. Error: 11\n"},
        {"curl_easy_setopt", 1, 48, "\n" + option + "HEADER) failed...\n"},
        {"curl_easy_setopt", 2, 48, "\n" + option + "VERBOSE) failed...\n"},
        {"curl_easy_setopt", 3, 48, "\n" + option + "DEBUGFUNCTION) failed...\n"},
        {"curl_easy_setopt", 4, 48, "\n" + option + "DEBUGDATA) failed...\n"},
        {"curl_easy_setopt", 5, 48, "] " + option + "URL) failed...\n"},
        {"curl_easy_setopt", 6, 48, "] " + option + "WRITEFUNCTION) failed...\n"},
        {"curl_easy_setopt", 7, 48, "] " + option + "WRITEDATA) failed...\n"},
        {"curl_easy_setopt", 8, 48, "] c" + option + "FAILONERROR) failed...\n"},
        {"curl_easy_setopt", 46, 48, "] " + option + "POSTFIELDS) failed...\n"},
        {"curl_easy_setopt", 47, 48, "] " + option + "POSTFIELDSIZE) failed...\n"},
        {"asprintf", 1, ENOMEM, "Failed to allocate _log_string event for QoS packet...\n"},
        {"asprintf", 2, ENOMEM, "Failed to allocate _http_log_string event for QoS packet...\n"},
    };
    HttpServer server;
    for (const Fault& fault : faults) {
        Daemon daemon("elastic_url=" + server.url, true);
        daemon.faults->arm(fault.function, fault.n, fault.error);
        daemon.start();
        daemon.send_qos(SESSION + "first");
        EXPECT_TRUE(daemon.printed(fault.message)) << fault.message;
        EXPECT_EQ(0, daemon.stop(fault.n == 4 ? SIGTERM : SIGINT));
    }
}

TEST(Daemon, LivesWithoutStandardDescriptors)
{
    for (const char* const redirection : {"<&- >&- 2>&-", "> >(exec true)"}) {
        Daemon daemon("log.file=d\nlog.default=4", true);
        daemon.redirection = redirection;
        daemon.start();
        for (const char* const name : {"one", "two"}) {
            daemon.send_qos(SESSION + name);
            daemon.faults->clock_shift += 31;
            EXPECT_TRUE(daemon.holds("QoS_Stat.txt", std::string(name) + "\n"));
        }
        EXPECT_EQ(0, daemon.stop());
        EXPECT_EQ(STAT_HEADER + STAT_LINE + "    0 one\n" + STAT_LINE + "    0 two\n",
                  read_file(daemon.dir / "QoS_Stat.txt"));
    }
}

TEST(Daemon, PostsServiceReportsEveryFiveMinutes)
{
    HttpServer server;
    Daemon daemon("log.http=4\nelastic_url=" + server.url, true);
    daemon.faults->clock_stands_at = 1700000000;
    daemon.start();
    const auto posted = [&server] {
        std::string all;
        for (const HttpServer::Request& request : server.requests())
            all += request.body;
        return all;
    };
    daemon.send_qos(SESSION + "x");  // the first pass starts the interval
    ASSERT_TRUE(server.received(1));
    daemon.faults->clock_shift = 299;
    daemon.send_qos(SESSION + "y");
    ASSERT_TRUE(server.received(2));
    EXPECT_EQ(0U, count(daemon.output(), "Service_Packet"));
    daemon.faults->clock_shift = 300;
    daemon.send_qos(SESSION + "z");
    EXPECT_TRUE(daemon.printed("new event: {\"message\": \"2023-Nov-14 22:18:20.", 2));
    daemon.faults->clock_shift = 310;
    EXPECT_TRUE(eventually([&] { return count(posted(), "Service_Packet") == 2; }));
    EXPECT_LT(posted().find("  192.0.2.10     0       0    0   0.0      0     0      00000     0 "
                            "Service_Packet\"}"),
              posted().find("198.51.100.10     0       0    0 100.0      0     0      00000     0 "
                            "Service_Packet\"}"));
    daemon.faults->clock_shift = 599;            // the interval began anew
    for (const std::string name : {"u", "v"}) {  // the second ends the pass of the first
        daemon.send_qos(SESSION + name);
        EXPECT_TRUE(daemon.printed(" " + name + "\"}"));
    }
    EXPECT_EQ(0U, count(daemon.output(), "new event: {\"message\": \"2023-Nov-14 22:23:19."));
    daemon.faults->clock_shift = 600;
    daemon.send_qos(SESSION + "w");
    EXPECT_TRUE(daemon.printed("new event: {\"message\": \"2023-Nov-14 22:23:20.", 2));
    EXPECT_EQ(0, daemon.stop());
    EXPECT_EQ(0U, count(read_file(daemon.dir / "QoS_Stat.txt"), "Service_Packet"));
}

TEST(Daemon, WritesAndPostsEveryReportOnceAndInOrder)
{
    constexpr std::size_t REPORTS = 5000, IN_SOCKET = 160;  // as many as its queue holds
    HttpServer server;
    Daemon daemon("elastic_url=" + server.url);
    daemon.start();
    std::size_t requests = 0;
    std::vector<int> posted;
    const auto note_posts = [&] {
        for (const HttpServer::Request& request : server.requests(requests)) {
            requests++;
            int last = -1;
            const std::string& body = request.body;
            for (auto at = body.find(" 0 n"); at != std::string::npos;
                 at = body.find(" 0 n", at + 1)) {
                posted.push_back(std::stoi(body.substr(at + 4)));
                EXPECT_LT(std::exchange(last, posted.back()), posted.back());
            }
        }
        return posted.size();
    };
    std::string expected = STAT_HEADER;
    for (std::size_t i = 0; i < REPORTS; i++) {
        if (i % 20 == 0) {
            ASSERT_TRUE(eventually([&] { return i < note_posts() + IN_SOCKET; }));
        }
        const std::string name = "n" + std::to_string(i);
        daemon.send_qos(SESSION + name);
        expected += STAT_LINE + "    0 " + name + "\n";
    }
    EXPECT_TRUE(eventually([&] { return note_posts() >= REPORTS; }));
    std::sort(posted.begin(), posted.end());  // several workers post at a time
    std::vector<int> numbers(REPORTS);
    std::iota(numbers.begin(), numbers.end(), 0);
    EXPECT_EQ(numbers, posted);
    EXPECT_EQ(0, daemon.stop());
    EXPECT_TRUE(expected == read_file(daemon.dir / "QoS_Stat.txt"));
}
