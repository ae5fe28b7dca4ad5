// The receiver.
#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "net/net_receiver.h"
#include "unit/harness.h"

static Faults& faults = Faults::self();
static constexpr int SIZE = 32768;

TEST(Receiver, ReadsEveryDatagram)
{
    LogCapture log;
    faults.any_port = true;
    ConfigFile config = config_of("log.network=2\nqos_port=70000");
    std::vector<char> buffer(SIZE + 1, '#');
    const auto open_files = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    send_udp(1, "");  // opens the sender's socket
    const auto before = open_files();
    {
        NetReceiver receiver(&config);
        const auto qos = [&] { return receiver.ReceiveQoSPacket(buffer.data(), SIZE); };
        const auto voice = [&] { return receiver.ReceiveVoicePacket(buffer.data(), SIZE); };
        EXPECT_EQ(0, qos());  // before any wait
        send_udp(faults.ports[0], std::string(40000, 'L'));
        send_udp(faults.ports[0], "short", 2);  // works on every local address
        send_udp(faults.ports[0], "");
        send_udp(faults.ports[0], "behind");
        send_udp(faults.ports[1], std::string("v\0w", 3));
        EXPECT_EQ(2, receiver.WaitForPackets(60000));
        EXPECT_EQ(SIZE - 1, qos());
        EXPECT_EQ('\0', buffer[SIZE - 1]);
        EXPECT_EQ('#', buffer[SIZE]);
        EXPECT_EQ(5, qos());
        EXPECT_EQ(0, receiver.ReceiveQoSPacket(buffer.data(), 0));  // nothing is read
        EXPECT_EQ(0, receiver.ReceiveQoSPacket(buffer.data(), 1));  // the empty one
        EXPECT_EQ(3, voice());
        EXPECT_EQ(-1, voice());
        EXPECT_EQ(1, receiver.WaitForPackets(60000));
        EXPECT_EQ(0, voice());
        EXPECT_EQ(6, qos());
        receiver.nr_stop();
        receiver.nr_stop();
        EXPECT_EQ(0, receiver.WaitForPackets(0));
        EXPECT_EQ(0, qos());
        EXPECT_EQ(0, voice());
    }
    EXPECT_EQ(before, open_files());
    const auto said = [](int qos, int voice) {
        std::string text;
        for (const char* const what : {"is listening on", "closing"})
            for (const int port : {qos, voice})
                text += std::string(" [INFO] NetReceiver ") + what + " port " +
                        std::to_string(port) + "\n";
        return text;
    };
    EXPECT_EQ(said(4464, 4465), log.take());
    config = config_of("log.network=2\nqos_port=65535");
    {
        const NetReceiver destroyed(&config);
    }
    EXPECT_EQ(65535, faults.asked_ports[0]);
    EXPECT_EQ(0, faults.asked_ports[1]);
    EXPECT_EQ(said(65535, 0), log.take());
    EXPECT_THROW(NetReceiver(nullptr), std::invalid_argument);
}
