// The whole daemon, from datagrams to files, log, posts and exit status.
#include <gmock/gmock.h>
#include <pcap/pcap.h>

#include <chrono>
#include <cstring>
#include <regex>

#include "support/harness.h"

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

TEST(Daemon, EndsAtOnceWhenItsPortIsTaken)
{
    Daemon first(""), second("");
    first.start();
    const std::string port = std::to_string(first.port);
    write_file(second.dir / "voxstat.cfg",
               "qos_port=" + port + "\nqos_stat_dir=" + second.dir.path);
    second.spawn("");
    EXPECT_EQ(0, second.wait());
    EXPECT_EQ("[ERROR] NetReceiver() unable to bind to port: " + port +
                  "(errno: 98)\n"
                  "[ERROR] Caught an exception: NetReceiver() fatal error...\n",
              LogCapture::bare(second.output()));
    EXPECT_EQ(0, first.stop());
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
        const std::string dump = daemon.dir / "RTP_Streams_No_Voice.pcap";
        EXPECT_EQ(bytes("D4C3B2A1 0200 0400 00000000 00000000 FFFF0000 01000000"),
                  read_file(dump).substr(0, 24));
        char error[PCAP_ERRBUF_SIZE];
        pcap_t* const pcap = pcap_open_offline(dump.c_str(), error);
        ASSERT_NE(nullptr, pcap) << error;
        pcap_pkthdr* header = nullptr;
        const u_char* data = nullptr;
        for (const unsigned length : {45U, 42U}) {
            EXPECT_EQ(1, pcap_next_ex(pcap, &header, &data));
            EXPECT_EQ(length, header->caplen);
        }
        EXPECT_EQ(2042U, header->len);
        EXPECT_EQ(PCAP_ERROR_BREAK, pcap_next_ex(pcap, &header, &data));
        pcap_close(pcap);

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

TEST(Daemon, OutlivesItsServersFaults)
{
    auto server = std::make_unique<HttpServer>();
    Daemon daemon("log.default=2\nlog.http=2\nelastic_url=" + server->url, true);
    daemon.start();
    struct Step {
        HttpServer::Answer answer;
        const char* message;
    };
    std::size_t finished = 0;
    for (const Step& step :
         {Step{HttpServer::OK, "Finished"}, Step{HttpServer::ERROR_500, "Finished"},
          Step{HttpServer::HALF, "curl_easy_perform failed: 18\n"},
          Step{HttpServer::OK, "Finished"}}) {
        server->answer = step.answer;
        finished += step.message[0] == 'F';
        daemon.faults->clock_shift += 6;
        daemon.send_qos(SESSION + "posted");
        daemon.send_qos(SUMMARY + "not posted");
        EXPECT_TRUE(daemon.printed(step.message, step.message[0] == 'F' ? finished : 1))
            << step.message;
    }
    for (const HttpServer::Request& request : server->requests())
        EXPECT_EQ("[\n{\"message\": \"" + STAT_LINE + "    0 posted\"}\n]", request.body);
    server.reset();
    daemon.faults->clock_shift += 6;
    daemon.send_qos(SESSION + "lost");
    EXPECT_TRUE(daemon.printed("curl_easy_perform failed: 7\n"));
    EXPECT_EQ(0, daemon.stop());
    EXPECT_EQ(2U, count(daemon.output(), "curl_easy_perform failed"));
    EXPECT_EQ(5U, count(read_file(daemon.dir / "QoS_Stat.txt"), STAT_LINE));
}

TEST(Daemon, KeepsItsFilesSafeFromAServerThatNeverAnswers)
{
    HttpServer server;
    server.answer = HttpServer::NEVER;
    Daemon daemon("log.http=2\nelastic_url=" + server.url, true);
    daemon.faults->clock_stands_at = 1700000000;  // no batch becomes due by its age
    daemon.start();
    std::size_t sent = 0;
    const auto send = [&](int reports) {
        for (int i = 0; i < reports; i++) {
            daemon.send_qos(SESSION + std::string(900, 'c') + std::to_string(sent++));
            // as many as the socket holds; of what has come all but a part of a block is written
            if (sent % 30 == 0)
                eventually(
                    [&] { return count(read_file(daemon.dir / "QoS_Stat.txt"), "\n") >= sent; });
        }
    };
    for (const std::size_t busy : {1U, 2U, 3U, 4U, 5U}) {
        send(busy == 1 ? 1 : 11);
        ASSERT_TRUE(server.received(busy));
    }
    send(102);
    EXPECT_TRUE(daemon.printed(" WebClient OVERFLOW\n"));
    EXPECT_EQ(5U, server.requests().size());
    server.answer = HttpServer::OK;
    ASSERT_TRUE(server.received(6));
    const std::size_t lost = count(daemon.output(), " WebClient OVERFLOW\n");
    send(1);
    EXPECT_TRUE(daemon.printed("WebClient OVERFLOW: " + std::to_string(lost) + "\n"));
    server.answer = HttpServer::NEVER;
    send(12);
    ASSERT_TRUE(server.received(7));
    kill(daemon.pid, SIGTERM);
    // while the stop waits:
    EXPECT_TRUE(daemon.holds("QoS_Stat.txt", std::to_string(sent - 1) + "\n"));
    EXPECT_FALSE(daemon.has_ended());
    server.answer = HttpServer::OK;
    EXPECT_EQ(0, daemon.stop());
    EXPECT_EQ(sent, count(read_file(daemon.dir / "QoS_Stat.txt"), "\n") - 1);
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

TEST(Daemon, LosesNothingAtFiveThousandReportsASecond)
{
    constexpr std::size_t REPORTS = 10000;
    HttpServer server;
    Daemon daemon("elastic_url=" + server.url);
    daemon.start();
    std::size_t posted = 0, requests = 0;
    std::vector<int> times_posted(REPORTS);
    const auto note_posts = [&] {
        for (const HttpServer::Request& request : server.requests(requests)) {
            requests++;
            int last = -1;
            const std::string& body = request.body;
            for (auto at = body.find(" 0 n"); at != std::string::npos;
                 at = body.find(" 0 n", at + 1)) {
                const int number = std::stoi(body.substr(at + 4));
                EXPECT_LT(last, number);  // in the order of arrival
                times_posted[static_cast<std::size_t>(last = number)]++;
                posted++;
            }
        }
    };
    // As fast as promised, and never more at once than the buffers and the socket hold.
    char socket[64];
    snprintf(socket, sizeof socket, ":%04X 00000000:0000 07 00000000:", daemon.port);
    const auto has_room = [&](std::size_t sent) {
        note_posts();
        const std::string table = read_file("/proc/net/udp");
        const std::size_t at = table.find(socket);
        const std::size_t waiting = std::stoul(table.substr(at + strlen(socket), 8), nullptr, 16);
        return waiting < 100000 &&
               sent - std::min(posted, count(read_file(daemon.dir / "QoS_Stat.txt"), "\n")) < 550;
    };
    auto due = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < REPORTS; i++) {
        if (i % 50 == 0) {
            std::this_thread::sleep_until(due += std::chrono::milliseconds(10));
            ASSERT_TRUE(eventually([&] { return has_room(i); }));
        }
        daemon.send_qos(SESSION + "n" + std::to_string(i));
    }
    EXPECT_TRUE(eventually([&] {
        note_posts();
        return posted >= REPORTS;
    }));
    EXPECT_EQ(std::vector<int>(REPORTS, 1), times_posted);
    EXPECT_EQ(0, daemon.stop());
    std::string expected = STAT_HEADER;
    for (std::size_t i = 0; i < REPORTS; i++)
        expected += STAT_LINE + "    0 n" + std::to_string(i) + "\n";
    EXPECT_TRUE(expected == read_file(daemon.dir / "QoS_Stat.txt"));
}
