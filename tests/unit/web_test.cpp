// The web client.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "log/simple_logger.h"
#include "records/qos_packet.h"
#include "unit/harness.h"
#include "web/web_client.h"

static Faults& faults = Faults::self();

// Without workers: the test checks the buffer itself.
struct IdleClient : WebClient {
    explicit IdleClient(ConfigFile config = config_of("elastic_url=http://127.0.0.1:1/"))
        : WebClient((faults.arm("pthread_create", 1, EAGAIN, true), &config))
    {
        LogCapture::take();
    }
    // Offers this many JSON lines of this size. Returns how many bytes the last one added.
    int write(std::size_t size, int lines = 1)
    {
        const std::string text = "QOS_EV_TYPE=QOS_NEAREND\nQOS_EV_RTCP_CNAME=";
        const std::size_t bare = std::string(QoSPacket(text.c_str(), "").http_log_string()).size();
        QoSPacket report((text + std::string(size - bare, 'c')).c_str(), "");
        while (--lines > 0)
            WC_Write(&report);
        return WC_Write(&report);
    }
};

TEST(WebClient, SendsWhatIsDue)
{
    LogCapture log;
    stop_the_clock();
    IdleClient client;
    faults.arm("curl_easy_perform", 1, 7, true);
    const auto sends = [&client](long seconds) {
        faults.clock_shift += seconds;
        const int before = faults.calls("curl_easy_perform");
        client.wc_perform();
        return faults.calls("curl_easy_perform") - before;
    };
    client.write(200);
    EXPECT_EQ(1, sends(0));
    EXPECT_EQ(0, sends(6));
    client.write(200);
    EXPECT_EQ(1, sends(0));
    client.write(1023);
    client.write(1022, 9);
    EXPECT_EQ(0, sends(5));
    EXPECT_EQ(1, sends(1));  // by age
    client.write(1024);
    client.write(1022, 9);
    EXPECT_EQ(1, sends(0));  // by size: 10240 bytes
}

TEST(WebClient, SaysHowMuchItPostsWhateverFails)
{
    struct Row {
        const char* what;
        int failing;            // which call that sets a body or its size
        std::size_t posted[2];  // bytes, of bodies of 204 and 504
        const char* logged;
    };
    static const Row rows[] = {{"nothing", 0, {204, 504}, ""},
                               {"the first body", 1, {0, 504}, "POSTFIELDS"},
                               {"the first size", 2, {204, 504}, "POSTFIELDSIZE"},
                               {"the second body", 3, {204, 504}, "POSTFIELDS"},
                               {"the second size", 4, {204, 204}, "POSTFIELDSIZE"}};
    LogCapture log;
    for (const Row& row : rows) {
        std::map<long, long> options;
        std::set<long> bodies;  // libcurl may use any of them
        Faults::set_watch([&](std::string_view function, long option, long value) {
            if (function != "curl_easy_setopt")
                return;
            options[option] = value;
            if (option == CURLOPT_POSTFIELDS)
                bodies.insert(value);
        });
        std::string said;
        {
            IdleClient client(config_of("log.http=3\nelastic_url=http://127.0.0.1:1/"));
            EXPECT_EQ(1, options[CURLOPT_HEADER]);
            EXPECT_EQ(1, options[CURLOPT_VERBOSE]);
            faults.arm("curl_easy_setopt", row.failing, 7);
            faults.arm("curl_easy_perform", 1, 7, true);
            for (const std::size_t line : {200U, 500U}) {
                EXPECT_EQ(line, client.write(line));
                faults.clock_shift += 6;
                client.wc_perform();
            }
        }
        said = log.take();
        EXPECT_EQ(1U, bodies.size()) << row.what;
        EXPECT_EQ(*row.logged == '\0' ? 0U : 1U,
                  count(said, std::string("[ERROR] curl_easy_setopt(CURLOPT_") + row.logged +
                                  ") failed...\n"))
            << row.what;
        std::size_t at = 0;
        for (const std::size_t size : row.posted) {
            at = said.find("Starting http transmission of " + std::to_string(size) + " bytes", at) +
                 1;
            EXPECT_NE(0U, at) << row.what << said;
        }
        EXPECT_EQ(
            1U, count(said, "; Bytes Sent=" + std::to_string(row.posted[0] + row.posted[1]) + "\n"))
            << row.what << said;
        EXPECT_EQ(2U,
                  count(said, "[ERROR] Unable to transmitt http - curl_easy_perform failed: 7\n"));
        EXPECT_EQ(2U, count(said, "Total idle curl handles: 5\n"));  // idle again
    }
}

TEST(WebClient, FillsItsBufferAndCountsWhatIsLost)
{
    LogCapture log;
    for (const int last : {1024, 1025}) {
        const bool one_more = last == 1024;  // 102400 bytes then
        IdleClient client;
        faults.arm("curl_easy_perform", 1, 7, true);
        EXPECT_EQ(1022, client.write(1022));
        EXPECT_EQ(1024, client.write(1022, 98));
        EXPECT_EQ(2 + last, client.write(static_cast<std::size_t>(last)));
        EXPECT_EQ(one_more ? 202 : 0, client.write(200));
        LogCapture::take();
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(" WebClient OVERFLOW\n", log.take([&] { EXPECT_EQ(0, client.write(200)); }));
        client.wc_perform();
        LogCapture::take();
        EXPECT_EQ(200, client.write(200));
        EXPECT_EQ(202, client.write(200));
        EXPECT_EQ(std::string(" [WARN] WebClient OVERFLOW: ") + (one_more ? "3" : "4") + "\n",
                  log.take());
    }
}

TEST(WebClient, KeepsTheBatchWhenNoHandleIsIdle)
{
    LogCapture log;
    EXPECT_EQ(0, IdleClient(config_of("")).write(200));  // off
    for (const char* const function : {"curl_global_init", "pthread_mutex_init"}) {
        faults.arm(function, 1, 2);
        EXPECT_EQ(0, IdleClient().write(200));
    }
    faults.arm("curl_easy_init", 1, 1, true);
    IdleClient client(config_of("log.http=2\nelastic_url=http://127.0.0.1:1/"));
    EXPECT_EQ(200, client.write(200));
    QoSPacket summary("QOS_EV_TYPE=QOS_EOS_NEAREND", "");
    EXPECT_EQ(0, client.WC_Write(&summary));
    client.wc_perform();
    EXPECT_EQ(" [INFO] Skipping http transmission - no available idle curl handles!\n", log.take());
    EXPECT_EQ(202, client.write(200));
    EXPECT_EQ(2, faults.calls("curl_global_init"));  // no more once it has succeeded
}

TEST(HttpHanle, LogsTheTraceAndDropsTheAnswer)
{
    LogCapture log;
    DebugGroup group(DBG_TRACE, "HTTP");
    DBG->register_dbg_group(&group);
    HttpHanle handle("http://127.0.0.1:1/", &group);
    const auto trace = [](char* data, std::size_t size, void* userdata) {
        return HttpHanle::curl_debug_callback(nullptr, CURLINFO_TEXT, data, size, userdata);
    };
    for (std::string text : {"Connected\n\n", "> POST /\r\n", "{", "\n"}) {
        EXPECT_EQ(0, trace(text.data(), text.size(), &handle));
        text = "[TRACE] " + text.substr(0, text.find('\n')) + "\n";
        EXPECT_EQ(text == "[TRACE] \n" ? "" : text, log.take());
    }
    char data = '-';
    EXPECT_EQ(0, trace(&data, 1, nullptr));
    EXPECT_EQ(7, trace(nullptr, 7, &handle));
    EXPECT_EQ(12U, HttpHanle::curl_write_resp_clbk(&data, 4, 3, &handle));
    EXPECT_EQ(0U, HttpHanle::curl_write_resp_clbk(&data, 4, 3, nullptr));
}
