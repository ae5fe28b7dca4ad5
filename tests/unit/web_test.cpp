// The web client.
#include <gtest/gtest.h>

#include <map>
#include <tuple>

#include "records/qos_packet.h"
#include "unit/harness.h"
#include "web/web_client.h"

static Faults& faults = Faults::self();

// A report whose JSON line has so many bytes.
static QoSPacket report(std::size_t size, const std::string& type = "QOS_NEAREND")
{
    const std::string text = "QOS_EV_TYPE=" + type + "\nQOS_EV_RTCP_CNAME=";
    const std::size_t line = std::string(QoSPacket(text.c_str(), "").http_log_string()).size();
    return QoSPacket((text + std::string(size - std::min(line, size), 'c')).c_str(), "");
}

// No worker: the test looks at the buffer itself.
static WebClient idle_client(const std::string& url, const std::string& settings = "log.http=4")
{
    ConfigFile config = config_of(settings + "\nelastic_url=" + url);
    faults.arm("pthread_create", 1, EAGAIN, true);
    return WebClient(&config);
}

TEST(WebClient, SetsItsHandlesUp)
{
    LogCapture log;
    std::map<long, long> options;
    Faults::set_watch([&options](std::string_view function, long option, long value) {
        if (function == "curl_easy_setopt")
            options.emplace(option, value);
    });
    idle_client("http://127.0.0.1:1/");
    EXPECT_EQ(1, options[CURLOPT_HEADER]);
    EXPECT_EQ(1, options[CURLOPT_VERBOSE]);
    EXPECT_EQ(1U, options.count(CURLOPT_FAILONERROR));
    EXPECT_EQ(0, options[CURLOPT_FAILONERROR]);
}

TEST(WebClient, SendsWhatIsDue)
{
    LogCapture log;
    stop_the_clock();
    WebClient client = idle_client("http://127.0.0.1:1/");
    faults.arm("curl_easy_perform", 1, 7, true);
    const auto write = [&client](std::size_t size, int times = 1) {
        QoSPacket packet = report(size);
        for (int i = 0; i < times; i++)
            client.WC_Write(&packet);
    };
    const auto sends = [&client](long seconds) {
        faults.clock_shift += seconds;
        const int before = faults.calls("curl_easy_perform");
        client.wc_perform();
        return faults.calls("curl_easy_perform") - before;
    };
    write(200);
    EXPECT_EQ(1, sends(0));
    EXPECT_EQ(0, sends(6));
    write(200);
    EXPECT_EQ(1, sends(0));
    write(1023);
    write(1022, 9);
    EXPECT_EQ(0, sends(5));
    EXPECT_EQ(1, sends(1));  // by age
    write(1024);
    write(1022, 9);
    EXPECT_EQ(1, sends(0));  // by size: 10240 bytes
}

TEST(WebClient, OutlivesTransmissionsThatFail)
{
    LogCapture log;
    WebClient client = idle_client("http://127.0.0.1:1/", "log.http=0");
    LogCapture::take();
    QoSPacket packet = report(200);
    const std::string set = "[ERROR] curl_easy_setopt(CURLOPT_POSTFIELDS",
                      refused = "[ERROR] Unable to transmitt http - curl_easy_perform failed: 7\n";
    const std::tuple<const char*, int, std::string> rows[] = {
        {"curl_easy_perform", 1, ""},
        {"curl_easy_setopt", 1, set + ") failed...\n"},
        {"curl_easy_setopt", 2, set + "IZE) failed...\n"}};
    for (const auto& [function, n, logged] : rows) {
        for (int i = 0; i < 6; i++) {  // each handle is idle again
            faults.disarm();
            faults.arm(function, n, 7);
            EXPECT_EQ(200, client.WC_Write(&packet));
            faults.clock_shift += 6;
            client.wc_perform();
            EXPECT_EQ(logged + refused, log.take());
        }
    }
}

TEST(WebClient, FillsItsBufferAndCountsWhatIsLost)
{
    LogCapture log;
    for (const std::size_t last : {1024U, 1025U}) {
        faults.disarm();
        faults.arm("curl_easy_perform", 1, 7, true);
        WebClient client = idle_client("http://127.0.0.1:1/", "log.http=1");
        QoSPacket packet = report(1022), filling = report(last), more = report(200);
        for (int i = 0; i < 99; i++)
            EXPECT_EQ(i == 0 ? 1022 : 1024, client.WC_Write(&packet));
        EXPECT_EQ(2 + last, client.WC_Write(&filling));
        EXPECT_EQ(last == 1024 ? 202 : 0, client.WC_Write(&more));  // 102400 bytes: one more fits
        LogCapture::take();
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(" WebClient OVERFLOW\n",
                      log.take([&] { EXPECT_EQ(0, client.WC_Write(&more)); }));
        client.wc_perform();
        LogCapture::take();
        EXPECT_EQ(200, client.WC_Write(&more));
        EXPECT_EQ(202, client.WC_Write(&more));
        EXPECT_EQ(std::string(" [WARN] WebClient OVERFLOW: ") + (last == 1024 ? "3" : "4") + "\n",
                  log.take());
    }
}

TEST(WebClient, KeepsTheBatchWhenNoHandleIsIdle)
{
    LogCapture log;
    faults.arm("curl_easy_init", 1, 1, true);
    WebClient client = idle_client("http://127.0.0.1:1/", "log.http=2");
    LogCapture::take();
    QoSPacket packet = report(200);
    EXPECT_EQ(200, client.WC_Write(&packet));
    client.wc_perform();
    EXPECT_EQ(" [INFO] Skipping http transmission - no available idle curl handles!\n", log.take());
    EXPECT_EQ(202, client.WC_Write(&packet));
}
