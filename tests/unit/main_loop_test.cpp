// The main loop and the entry point, driven pass by pass: what happens while it waits is a step.
#include <gtest/gtest.h>

#include "app/main_loop.h"
#include "unit/harness.h"

int voxstat_main(int argc, char** argv);  // app/main.cpp

static Faults& faults = Faults::self();

static const std::string NEAR = "QOS_EV_TYPE=QOS_NEAREND\nQOS_EV_RTCP_CNAME=",
                         EOS = "QOS_EV_TYPE=QOS_EOS_NEAREND\nQOS_EV_RTCP_CNAME=";

// Calls one step at each wait of the loop, and ends the loop at the first wait without one.
static void at_each_wait(std::vector<std::function<void()>> steps)
{
    Faults::watch = [steps = std::move(steps), next = 0U](std::string_view function, long timeout,
                                                          long /*unused*/) mutable {
        if (function != "poll")
            return;
        EXPECT_EQ(60000, timeout);
        if (next < steps.size())
            steps[next++]();
        else
            MainLoop::stop();
    };
}

// No thread runs, so the log tells all that happens in its order.
TEST(MainLoop, HandsOnWhatComes)
{
    LogCapture log;
    const TempDir dir;
    stop_the_clock(3);
    write_file(dir / "sn", "serial: AB12\n");
    faults.any_port = true;
    faults.arm("pthread_create", 1, EAGAIN, true);
    ConfigFile config = config_of("qos_stat_dir=" + dir.path + "\nsn_file_path=" + (dir / "sn") +
                                  "\nlog.http=4\nelastic_url=http://127.0.0.1:1/");
    MainLoop loop(&config);
    log.take();
    const std::string start = "1970-Jan-01 00:00:00.000 +0000                       ",
                      near = start + "near_end                     0       0    0   0.0      0"
                                     "     0             AB12 ",
                      eos = start + " far_end                     0     0       0    0   0.0      "
                                    "0      0      0      0 00:00:00.000 00:00:00.000            "
                                    " AB12 ";
    const std::string web = "[DEBUG] WebClient::WC_Write() new event: {\"message\": \"",
                      queued = "[DEBUG] FileLogger::FL_Write new event: ";
    const auto voice = [](int size, int total) {
        return "[DEBUG] FileLogger::FL_Write new voice event " + std::to_string(size) +
               " bytes. Total in buffer: " + std::to_string(total) + "\n";
    };
    const auto service = [&web](const std::string& time) {
        const std::string begin = web + time + ".250 +0000       0-0         0.0 near_end ",
                          middle = "     0       0    0 ",
                          end = "      0     0      00000  AB12 Service_Packet\"}\n";
        return begin + "     192.0.2.10" + middle + "  0.0" + end + begin + "  198.51.100.10" +
               middle + "100.0" + end;
    };
    const std::string first = voice_record(std::string(30000, 'f')),
                      last = voice_record(std::string(32767 - first.size() - 24, 'l'));
    struct Pass {
        long clock;
        std::vector<std::string> reports, voice;
        std::string logged;
    };
    const long DAY = 86400;
    const Pass passes[] = {
        {0, {}, {}, ""},
        {299,
         {NEAR + "a", EOS + "b", NEAR + "c"},
         {voice_record("v") + voice_record(""), voice_record("w")},
         queued + near + "a\n" + web + near + "a\"}\n" + queued + eos + "b\n" + queued + near +
             "c\n" + web + near + "c\"}\n" + voice(59, 59) + voice(58, 117) + voice(59, 176)},
        {300, {}, {}, service("1970-Jan-01 00:05:03")},
        {599, {}, {}, ""},
        {600,
         {},
         {first + last},
         voice(58, 234) + voice(58, 292) + service("1970-Jan-01 00:10:03")},
        {DAY, {}, {}, service("1970-Jan-02 00:00:03")},
        {DAY, {}, {}, ""},
        {0,
         {},
         {voice_record("v") + voice_record("x", 2)},
         voice(59, 351) + " [WARN] Dropped the rest of a voice datagram: no whole record at "
                          "offset 25, 25 bytes left\n"},
        {DAY + 299, {}, {}, ""},
        {DAY + 300,
         {NEAR + "d"},
         {},
         queued + near + "d\n" + web + near + "d\"}\n" + service("1970-Jan-02 00:05:03")},
        {DAY + 300, {}, {}, ""},
    };
    std::vector<std::function<void()>> steps;
    std::string expected;
    for (const Pass& pass : passes) {
        steps.emplace_back([&] {
            EXPECT_EQ(expected, log.take());
            faults.clock_shift = pass.clock;
            expected = pass.logged;
            for (const std::string& datagram : pass.voice)
                send_udp(faults.ports[1], datagram);
            for (const std::string& datagram : pass.reports)
                send_udp(faults.ports[0], datagram);
        });
    }
    at_each_wait(steps);
    loop.start();
    EXPECT_EQ(expected, log.take());
}

TEST(MainLoop, ReadsTheSerialNumberOrEndsTheProcess)
{
    LogCapture log("log.default=2");
    const TempDir dir;
    faults.any_port = true;
    write_file(dir / "sn", "serial: AB12\n");
    write_file(dir / "none", "serial = X\n");
    const std::string failed = " [WARN] Caught an exception: Failed to open config file: ";
    const std::pair<std::string, std::string> rows[] = {
        {"sn_file_path=" + (dir / "sn"), " [INFO] Serial Number: AB12\n"},
        {"sn_file_path=" + (dir / "none"),
         " [INFO] KeyValueParser::parseLine ignoring invalid line: serial = X\n"
         " [INFO] Serial Number is not defined.\n"},
        {"sn_file_path=" + (dir / "missing"), failed + (dir / "missing") + "\n"},
        {"", failed + "/etc/zk-T/activation/sn\n"}};
    for (const auto& [setting, logged] : rows) {
        faults.arm("pthread_create", 1, EAGAIN);
        ConfigFile config = config_of("qos_stat_dir=" + dir.path + "\n" + setting);
        {
            const MainLoop loop(&config);
        }
        const std::string closed = " [INFO] Closed file: " + dir.path + "/";
        EXPECT_EQ(closed + "QoS_Stat.txt\n" + closed + "QoS_Stat_Sessions_Summary.txt\n" + closed +
                      "RTP_Streams_No_Voice.pcap\n"
                      "[ERROR] Unable to create new thread for FileLogger. Error: 11\n [WARN] "
                      "Empty URL value for WebClient. HTTP reporting is unavailable.\n" +
                      logged,
                  log.take());
    }
}

TEST(Entry, StartsAndStopsInOrder)
{
    const TempDir dir;
    stop_the_clock(1);  // no tail is old before the stop
    write_file(dir / "cfg",
               "log.default=2\nlog.network=2\nlog.http=2\nqos_port=7000\nsn_file_path=none\n"
               "elastic_url=http://127.0.0.1:1/\nqos_stat_dir=" +
                   dir.path);
    faults.any_port = true;
    faults.arm("signal", 3, EINVAL, true);
    at_each_wait({[] {
        send_udp(faults.ports[0], EOS + "x");
        send_udp(faults.ports[1], voice_record("v"));
    }});
    std::string name = "voxstat", option = "-f", file = dir / "cfg";
    char* arguments[] = {name.data(), option.data(), file.data(), nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, voxstat_main(3, arguments));
    const std::string worker = " [INFO] Terminating WebClient thread...\n";
    EXPECT_EQ("[ERROR] Failed to register SIGTERM signal handler...\n"
              "[ERROR] Failed to register SIGINT signal handler...\n"
              "[ERROR] Failed to register SIGQUIT signal handler...\n"
              " [INFO] NetReceiver is listening on port 7000\n"
              " [INFO] NetReceiver is listening on port 7001\n"
              " [WARN] Caught an exception: Failed to open config file: none\n"
              " [INFO] NetReceiver closing port 7000\n"
              " [INFO] NetReceiver closing port 7001\n"
              " [INFO] Opened for writing DIR/QoS_Stat_Sessions_Summary.txt\n"
              " [INFO] Opened for writing DIR/RTP_Streams_No_Voice.pcap\n"
              " [INFO] Terminating FileLogger thread...\n" +
                  worker + worker + worker + worker + worker +
                  " [INFO] Closed file: DIR/QoS_Stat.txt\n"
                  " [INFO] Closed file: DIR/QoS_Stat_Sessions_Summary.txt\n"
                  " [INFO] Closed file: DIR/RTP_Streams_No_Voice.pcap\n"
                  " [INFO] WebClient stat: Lines Sent=0; Bytes Sent=0\n"
                  " [INFO] Terminating application...\n"
                  " [INFO] Terminating SimpleLogger thread...\n",
              replaced(LogCapture::bare(testing::internal::GetCapturedStdout()), dir.path, "DIR"));
}
