// The receiver and the web client.
#include <gmock/gmock.h>

#include "log/simple_logger.h"
#include "net/net_receiver.h"
#include "records/qos_packet.h"
#include "unit/harness.h"
#include "web/web_client.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

static Faults& faults = Faults::self();
static constexpr int SIZE = 32768;

TEST(Receiver, ReadsEveryDatagramAndSaysSo)
{
    LogCapture log;
    std::unique_ptr<NetReceiver> receiver;
    int port = 0;
    while (receiver == nullptr) {
        port = free_port_pair();
        ConfigFile config = config_of("log.network=4\nqos_port=" + std::to_string(port));
        try {
            receiver = std::make_unique<NetReceiver>(&config);
        } catch (const std::invalid_argument&) {
            log.take();  // somebody was faster
        }
    }
    const std::string qos = std::to_string(port), voice = std::to_string(port + 1);
    EXPECT_EQ(" [INFO] NetReceiver is listening on port " + qos +
                  "\n [INFO] NetReceiver is listening on port " + voice + "\n",
              log.take());
    std::vector<char> buffer(SIZE + 1, '#');
    const auto receive = [&](bool from_qos) {
        return from_qos ? receiver->ReceiveQoSPacket(buffer.data(), SIZE)
                        : receiver->ReceiveVoicePacket(buffer.data(), SIZE);
    };
    EXPECT_EQ(0, receive(true));  // before any wait
    send_udp(port, std::string(40000, 'L'));
    send_udp(port, "short", 2);  // every address of the machine
    send_udp(port, "");
    send_udp(port, "behind");
    send_udp(port + 1, std::string("v\0w", 3));
    EXPECT_EQ(2, receiver->WaitForPackets(5000));
    EXPECT_EQ(SIZE - 1, receive(true));
    EXPECT_EQ('\0', buffer[SIZE - 1]);
    EXPECT_EQ('#', buffer[SIZE]);
    EXPECT_EQ(">>>>> New QoS packet:\n" + std::string(SIZE - 1, 'L') + "\n", log.take().substr(8));
    EXPECT_EQ(5, receive(true));
    EXPECT_EQ(0, receive(true));
    EXPECT_EQ(3, receive(false));
    EXPECT_EQ(-1, receive(false));
    EXPECT_EQ("[DEBUG] >>>>> New QoS packet:\nshort\n[DEBUG] >>>>> New Voice packet: 3 bytes\n",
              log.take());
    EXPECT_EQ(1, receiver->WaitForPackets(5000));
    EXPECT_EQ(0, receive(false));
    faults.arm("recvfrom", 1, EIO);
    EXPECT_EQ(-1, receive(true));
    EXPECT_EQ(6, receive(true));
    faults.arm("poll", 1, EINTR);
    EXPECT_EQ(-1, receiver->WaitForPackets(5000));
    EXPECT_EQ("[ERROR] NetReceiver() recvfrom failed on port: " + qos +
                  "(errno: 5)\n[DEBUG] >>>>> New QoS packet:\nbehind\n"
                  "[ERROR] NetReceiver select() failed: -1\n",
              log.take());
    ConfigFile same = config_of("qos_port=" + qos);
    EXPECT_THROW(NetReceiver{&same}, std::invalid_argument);
    EXPECT_EQ("[ERROR] NetReceiver() unable to bind to port: " + qos + "(errno: 98)\n", log.take());
    receiver->nr_stop();
    receiver->nr_stop();
    EXPECT_EQ(0, receiver->WaitForPackets(0));
    EXPECT_EQ(0, receive(true));
    EXPECT_EQ(0, receive(false));
    receiver.reset();
    EXPECT_EQ(" [INFO] NetReceiver closing port " + qos + "\n [INFO] NetReceiver closing port " +
                  voice + "\n",
              log.take());
    EXPECT_THROW(NetReceiver(nullptr), std::invalid_argument);
    try {
        ConfigFile defaults = config_of("log.network=4");
        const NetReceiver standard(&defaults);
    } catch (const std::invalid_argument&) {  // somebody has the port
    }
    EXPECT_THAT(log.take(), testing::ContainsRegex(" port:? 49999"));
}

// A report whose JSON line has so many bytes.
static QoSPacket report(std::size_t size, const std::string& type = "QOS_NEAREND")
{
    const std::string text = "QOS_EV_TYPE=" + type + "\nQOS_EV_RTCP_CNAME=";
    const std::size_t line = std::string(QoSPacket(text.c_str(), "").http_log_string()).size();
    return QoSPacket((text + std::string(size - std::min(line, size), 'c')).c_str(), "");
}

TEST(WebClient, PostsLinesInBatches)
{
    LogCapture log;
    HttpServer server;
    ConfigFile config = config_of("log.http=4\nelastic_url=" + server.url);
    faults.clock_stands_at = 1700000000;
    {
        WebClient client(&config);
        QoSPacket small = report(200), large = report(1000), eos = report(0, "QOS_EOS_FAREND"),
                  unknown = report(0, "x");
        EXPECT_EQ(0, client.WC_Write(&eos));
        EXPECT_EQ(0, client.WC_Write(&unknown));
        EXPECT_EQ(200, client.WC_Write(&small));
        ASSERT_TRUE(server.received(1));  // the first line at once
        faults.clock_shift = 5;
        EXPECT_EQ(200, client.WC_Write(&small));
        EXPECT_EQ(202, client.WC_Write(&small));
        client.wc_perform();
        EXPECT_EQ(1U, server.requests().size());
        faults.clock_shift = 6;
        ASSERT_TRUE(server.received(2));
        for (const std::size_t last : {219U, 220U}) {  // 10239 bytes wait, 10240 do not
            QoSPacket rest = report(last);
            for (int i = 0; i < 10; i++)
                EXPECT_EQ(i == 0 ? 1000 : 1002, client.WC_Write(&large));
            EXPECT_EQ(last + 2, client.WC_Write(&rest));
            client.wc_perform();
            EXPECT_EQ(last == 219 ? 2U : 4U, server.requests().size());
            faults.clock_shift = 12;
            ASSERT_TRUE(server.received(last == 219 ? 3 : 4));
        }
        client.WC_Write(&small);  // never sent
        client.wc_stop();
        EXPECT_EQ(0, client.WC_Write(&small));
        const std::string line = small.http_log_string();
        EXPECT_EQ("[\n" + line + "\n]", server.requests()[0].body);
        EXPECT_EQ("[\n" + line + ",\n" + line + "\n]", server.requests()[1].body);
    }
    const auto requests = server.requests();
    EXPECT_THAT(requests[0].head, StartsWith("POST /qos HTTP/1.1\r\n"));
    EXPECT_THAT(requests[0].head, HasSubstr("\r\ncontent-type: application/json"));
    std::size_t body_bytes = 0;
    for (const auto& request : requests)
        // cppcheck-suppress useStlAlgorithm
        body_bytes += request.body.size();
    const std::string text = log.take();
    EXPECT_THAT(text, EndsWith(" [INFO] WebClient stat: Lines Sent=26; Bytes Sent=" +
                               std::to_string(body_bytes) + "\n"));
    EXPECT_EQ(5U, count(text, "Terminating WebClient thread..."));
    for (const char* const part :
         {"[TRACE] Starting http transmission of 204 bytes for the curl handle 0x",
          " [INFO] Finished http transmission of 204 bytes for the curl handle 0x",
          "[TRACE] HTTP/1.1 200 OK\r\n", "[TRACE] Total idle curl handles: 4\n",
          "[TRACE] Total idle curl handles: 5\n", "[DEBUG] HTTP buffer sent for the handle: 0x"})
        EXPECT_THAT(text, HasSubstr(part));
}

TEST(WebClient, FillsItsBufferAndCountsWhatIsLost)
{
    LogCapture log;
    ConfigFile config = config_of("log.http=2\nelastic_url=http://127.0.0.1:1/");
    faults.arm("curl_easy_init", 1, 1, true);  // no handle will ever be idle
    WebClient client(&config);
    faults.disarm();
    QoSPacket packet = report(1022), filling = report(1024), more = report(200);
    for (int i = 0; i < 99; i++)
        EXPECT_EQ(i == 0 ? 1022 : 1024, client.WC_Write(&packet));
    EXPECT_EQ(1026, client.WC_Write(&filling));  // now 102400 bytes: one more fits
    EXPECT_EQ(202, client.WC_Write(&more));
    CaptureStdout();
    EXPECT_EQ(0, client.WC_Write(&more));
    EXPECT_EQ(" WebClient OVERFLOW\n", GetCapturedStdout());
    client.wc_perform();
    EXPECT_THAT(
        log.take(),
        HasSubstr(" [INFO] Skipping http transmission - no available idle curl handles!\n"));
}

TEST(WebClient, OutlivesItsServersFaults)
{
    LogCapture log;
    auto server = std::make_unique<HttpServer>();
    ConfigFile config = config_of("log.http=2\nelastic_url=" + server->url);
    WebClient client(&config);
    QoSPacket line = report(200);
    std::string text;
    const auto post = [&](const std::string& message, std::size_t times) {
        faults.clock_shift += 6;
        EXPECT_EQ(200, client.WC_Write(&line));
        EXPECT_TRUE(eventually([&] { return count(text += log.take(), message) == times; }))
            << text;
    };
    post("Finished", 1);
    server->answer = HttpServer::ERROR_500;
    post("Finished", 2);
    server->answer = HttpServer::HALF;
    post("curl_easy_perform failed: 18\n", 1);
    server->answer = HttpServer::OK;
    post("Finished", 3);
    server.reset();
    for (const std::size_t times : {1U, 2U})  // six posts: each handle is idle again
        post("curl_easy_perform failed: 7\n", times);
}
