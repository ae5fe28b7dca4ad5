// The receiver.
#include <gtest/gtest.h>

#include <vector>

#include "net/net_receiver.h"
#include "unit/harness.h"

static Faults& faults = Faults::self();
static constexpr int SIZE = 32768;

TEST(Receiver, ReadsEveryDatagramAndSaysSo)
{
    LogCapture log;
    faults.any_port = true;
    ConfigFile config = config_of("log.network=4\nqos_port=70000");
    std::vector<char> buffer(SIZE + 1, '#');
    {
        NetReceiver receiver(&config);
        const auto receive = [&](bool voice) {
            return voice ? receiver.ReceiveVoicePacket(buffer.data(), SIZE)
                         : receiver.ReceiveQoSPacket(buffer.data(), SIZE);
        };
        EXPECT_EQ(0, receive(false));  // before any wait
        send_udp(faults.ports[0], std::string(40000, 'L'));
        send_udp(faults.ports[0], "short", 2);  // every address of the machine
        send_udp(faults.ports[0], "");
        send_udp(faults.ports[0], "behind");
        send_udp(faults.ports[1], std::string("v\0w", 3));
        EXPECT_EQ(2, receiver.WaitForPackets(60000));
        EXPECT_EQ(SIZE - 1, receive(false));
        EXPECT_EQ('\0', buffer[SIZE - 1]);
        EXPECT_EQ('#', buffer[SIZE]);
        EXPECT_EQ(5, receive(false));
        EXPECT_EQ(0, receive(false));
        EXPECT_EQ(3, receive(true));
        EXPECT_EQ(-1, receive(true));
        EXPECT_EQ(1, receiver.WaitForPackets(60000));
        EXPECT_EQ(0, receive(true));
        faults.arm("recvfrom", 1, EIO);
        EXPECT_EQ(-1, receive(false));
        EXPECT_EQ(6, receive(false));
        faults.arm("poll", 1, EINTR);
        EXPECT_EQ(-1, receiver.WaitForPackets(60000));
        receiver.nr_stop();
        receiver.nr_stop();
        EXPECT_EQ(0, receiver.WaitForPackets(0));
        EXPECT_EQ(0, receive(false));
        EXPECT_EQ(0, receive(true));
    }
    {
        const NetReceiver destroyed(&config);
    }
    const std::string opened = " [INFO] NetReceiver is listening on port 4464\n"
                               " [INFO] NetReceiver is listening on port 4465\n",
                      closed = " [INFO] NetReceiver closing port 4464\n"
                               " [INFO] NetReceiver closing port 4465\n",
                      report = "[DEBUG] >>>>> New QoS packet:\n";
    EXPECT_EQ(opened + report + std::string(SIZE - 1, 'L') + "\n" + report +
                  "short\n[DEBUG] >>>>> New Voice packet: 3 bytes\n"
                  "[ERROR] NetReceiver() recvfrom failed on port: 4464(errno: 5)\n" +
                  report + "behind\n[ERROR] NetReceiver select() failed: -1\n" + closed + opened +
                  closed,
              log.take());
}

TEST(Receiver, FindsItsPorts)
{
    LogCapture log;
    faults.any_port = true;
    const std::pair<const char*, std::pair<int, int>> ports[] = {
        {"", {49999, 50000}},
        {"qos_port=65535\nlog.network=5", {65535, 0}},
        {"qos_port=1\nlog.network=-1", {1, 2}}};
    for (const auto& [settings, asked] : ports) {
        ConfigFile config = config_of(settings);
        const NetReceiver receiver(&config);
        EXPECT_EQ(asked, std::pair(faults.asked_ports[0].load(), faults.asked_ports[1].load()));
    }
    EXPECT_EQ("", log.take());  // by default, and at a level that there is not, warnings only
    EXPECT_THROW(NetReceiver(nullptr), std::invalid_argument);
}
