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

TEST(Entry, SaysWhatItCannotHave)
{
    const TempDir dir;
    write_file(dir / "cfg", "rtp_logging=0\nqos_stat_dir=" + dir.path);
    faults.any_port = true;
    faults.arm("signal", 3, EINVAL, true);
    at_each_wait({});
    std::string name = "voxstat", option = "-f", file = dir / "cfg";
    char* arguments[] = {name.data(), option.data(), file.data(), nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, voxstat_main(3, arguments));
    EXPECT_EQ("[ERROR] Failed to register SIGTERM signal handler...\n"
              "[ERROR] Failed to register SIGINT signal handler...\n"
              "[ERROR] Failed to register SIGQUIT signal handler...\n"
              " [WARN] Empty URL value for WebClient. HTTP reporting is unavailable.\n"
              " [WARN] Caught an exception: Failed to open config file: /etc/zk-T/activation/sn\n",
              LogCapture::bare(testing::internal::GetCapturedStdout()));
}
