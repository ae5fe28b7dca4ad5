// The main loop, pass by pass; datagrams arrive while it waits.
#include <gtest/gtest.h>

#include <regex>

#include "app/main_loop.h"
#include "log/simple_logger.h"
#include "unit/harness.h"

static Faults& faults = Faults::self();

static const std::string NEAR = "QOS_EV_TYPE=QOS_NEAREND\nQOS_EV_RTCP_CNAME=",
                         EOS = "QOS_EV_TYPE=QOS_EOS_NEAREND\nQOS_EV_RTCP_CNAME=";

// The lines passed on, with one space between columns.
static std::string handed_on()
{
    std::string log = std::regex_replace(LogCapture::take(), std::regex("  +"), " ");
    log = replaced(log, "[DEBUG] FileLogger::FL_Write new event:", "file");
    log = replaced(log, "[DEBUG] FileLogger::FL_Write new voice event", "file");
    return replaced(log, "[DEBUG] WebClient::WC_Write() new event: {\"message\":", "post");
}

// No other thread runs, so the log shows the order of events.
TEST(MainLoop, PassesOnWhatArrives)
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
    LogCapture::take();
    const std::string near = "1970-Jan-01 00:00:00.000 +0000 near_end 0 0 0 0.0 0 0 AB12 ";
    const auto service = [](const std::string& time) {
        const std::string start = "post \"1970-Jan-0" + time + ".250 +0000 0-0 0.0 near_end ",
                          end = " 0 0 00000 AB12 Service_Packet\"}\n";
        return start + "192.0.2.10 0 0 0 0.0" + end + start + "198.51.100.10 0 0 0 100.0" + end;
    };
    const auto voice = [](int size, int total) {
        return "file " + std::to_string(size) +
               " bytes. Total in buffer: " + std::to_string(total) + "\n";
    };
    const auto dropped = [](int offset, int left) {
        return " [WARN] Dropped the rest of a voice datagram: no whole record at offset " +
               std::to_string(offset) + ", " + std::to_string(left) + " bytes left\n";
    };
    const std::string first = voice_record(std::string(30000, 'f')),
                      last = voice_record(std::string(32767 - first.size() - 24, 'l'));
    struct Pass {
        long clock;
        std::vector<std::string> reports, voice;
        std::string handed_on;
    };
    const long DAY = 86400;
    const Pass passes[] = {
        {0, {}, {}, ""},
        {299,
         {NEAR + "a", EOS + "b", NEAR + "c"},
         {voice_record("v") + voice_record(""), voice_record("w")},
         "file " + near + "a\npost \"" + near +
             "a\"}\nfile 1970-Jan-01 00:00:00.000 +0000 far_end "
             "0 0 0 0 0.0 0 0 0 0 00:00:00.000 00:00:00.000 AB12 b\nfile " +
             near + "c\npost \"" + near + "c\"}\n" + voice(59, 59) + voice(58, 117) +
             voice(59, 176)},
        {300, {}, {}, service("1 00:05:03")},
        {599, {}, {}, ""},
        {600, {}, {first + last + "!"}, voice(58, 234) + voice(58, 292) + service("1 00:10:03")},
        {DAY, {}, {}, service("2 00:00:03")},
        {DAY, {}, {}, ""},
        {0,
         {},
         {voice_record("v") + voice_record("x", 2), voice_record("").substr(0, 23),
          voice_record("xy", 1), voice_record("x", 0xFFFFFFE8)},
         voice(59, 351) + dropped(25, 25) + dropped(0, 23) + voice(59, 410) + dropped(25, 1) +
             dropped(0, 25)},
        {DAY + 299, {}, {}, ""},
        {DAY + 300,
         {NEAR + "d"},
         {},
         "file " + near + "d\npost \"" + near + "d\"}\n" + service("2 00:05:03")},
        {DAY + 300, {}, {}, ""},
    };
    std::size_t next = 0;
    std::string expected;
    Faults::set_watch([&](std::string_view function, long timeout, long /*unused*/) {
        if (function != "poll")
            return;
        EXPECT_EQ(60000, timeout);
        EXPECT_EQ(expected, handed_on());
        if (next == std::size(passes))
            return MainLoop::stop();
        const Pass& pass = passes[next++];
        faults.clock_shift = pass.clock;
        for (const std::string& datagram : pass.voice)
            send_udp(faults.ports[1], datagram);
        for (const std::string& datagram : pass.reports)
            send_udp(faults.ports[0], datagram);
        expected = pass.handed_on;
    });
    loop.start();
    EXPECT_EQ("", handed_on());
    EXPECT_EQ(-1, min_loss_packet(nullptr));
}
