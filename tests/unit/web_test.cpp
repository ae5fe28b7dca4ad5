// The web client, against a server in the test.
#include <gmock/gmock.h>

#include "records/qos_packet.h"
#include "unit/harness.h"
#include "web/web_client.h"

using testing::HasSubstr;
using testing::StartsWith;

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

TEST(WebClient, PostsLinesInBatches)
{
    LogCapture log;
    HttpServer server;
    stop_the_clock();
    QoSPacket small = report(200), large = report(1000), eos = report(0, "QOS_EOS_FAREND"),
              unknown = report(0, "x");
    const std::string line = small.http_log_string();
    {
        WebClient client = idle_client(server.url);
        log.take();
        EXPECT_EQ(0, client.WC_Write(&eos));
        EXPECT_EQ(0, client.WC_Write(&unknown));
        EXPECT_EQ("", log.take());
        struct Step {
            std::vector<QoSPacket*> queued;
            std::size_t last_bytes;  // in the JSON line of another report; 0: none
            long seconds;            // at which the client looks, since the last transmission
            bool sent;
        };
        const std::vector<QoSPacket*> ten(10, &large);  // 10018 bytes
        long last_sent = 0;
        std::size_t sent = 0;
        for (const Step& step : {Step{{&small}, 0, 0, true},  // the first line at once
                                 {{&small, &small}, 0, 5, false},
                                 {{}, 0, 6, true},
                                 {{}, 0, 99, false},
                                 {ten, 219, 0, false},
                                 {{}, 0, 6, true},
                                 {ten, 220, 0, true}}) {
            int separator = step.sent || step.seconds == 0 || step.queued.size() == 2 ? 0 : 2;
            for (QoSPacket* packet : step.queued) {
                EXPECT_EQ(separator + (packet == &small ? 200 : 1000), client.WC_Write(packet));
                separator = 2;
            }
            if (step.last_bytes > 0) {
                QoSPacket rest = report(step.last_bytes);
                EXPECT_EQ(2 + step.last_bytes, client.WC_Write(&rest));
            }
            faults.clock_shift = last_sent + step.seconds;
            client.wc_perform();
            EXPECT_EQ(sent += step.sent, server.requests().size());
            if (step.sent)
                last_sent = faults.clock_shift;
        }
        client.WC_Write(&small);  // never sent
        log.take();
    }
    EXPECT_EQ(" [INFO] WebClient stat: Lines Sent=26; Bytes Sent=21097\n", log.take());
    const auto requests = server.requests();
    EXPECT_EQ("[\n" + line + "\n]", requests[0].body);
    EXPECT_EQ("[\n" + line + ",\n" + line + "\n]", requests[1].body);
    EXPECT_THAT(requests[0].head, StartsWith("POST /qos HTTP/1.1\r\n"));
    EXPECT_THAT(requests[0].head, HasSubstr("\r\ncontent-type: application/json"));
}

TEST(WebClient, TellsEveryStepOfATransmission)
{
    LogCapture log;
    HttpServer server;
    std::map<long, long> options;
    Faults::watch = [&options](std::string_view function, long option, long value) {
        if (function == "curl_easy_setopt")
            options.emplace(option, value);
    };
    QoSPacket packet = report(200);
    const std::string line = packet.http_log_string(),
                      bytes = " of 204 bytes for the curl handle 0x";
    WebClient client = idle_client(server.url);
    EXPECT_EQ(1, options[CURLOPT_HEADER]);
    EXPECT_EQ(1, options[CURLOPT_VERBOSE]);
    EXPECT_EQ(0, options[CURLOPT_FAILONERROR]);
    EXPECT_EQ(1U, options.count(CURLOPT_FAILONERROR));
    client.WC_Write(&packet);
    client.wc_perform();
    const std::string text = log.take();
    std::size_t at = 0;
    for (const std::string& part :
         {"\n[DEBUG] WebClient::WC_Write() new event: " + line + "\n",
          std::string("\n[TRACE] Total idle curl handles: 4\n"),
          "\n[TRACE] Starting http transmission" + bytes,
          std::string("\n[DEBUG] HTTP buffer sent for the handle: 0x"), "\n[\n" + line + "\n]\n",
          std::string("\n[TRACE] POST /qos HTTP/1.1\r\n"),
          std::string("\n[TRACE] HTTP/1.1 200 OK\r\n"),
          "\n [INFO] Finished http transmission" + bytes,
          std::string("\n[TRACE] Total idle curl handles: 5\n")}) {
        at = text.find(part, at == 0 ? 0 : at - 1);
        EXPECT_NE(std::string::npos, at) << part << text;
        at += part.size();
    }
    EXPECT_EQ(text.size(), at);
}

TEST(WebClient, NamesEveryCallThatFails)
{
    LogCapture log;
    const std::string set = "curl_easy_setopt(CURLOPT_", failed = ") failed...\n",
                      no_thread = "[ERROR] Unable to create new thread for WebClient. Error: 11\n",
                      none = no_thread + no_thread + no_thread + no_thread + no_thread;
    struct Row {
        const char* function;
        int n, error;
        std::string logged;
    };
    const Row rows[] = {
        {"curl_global_init", 1, CURLE_FAILED_INIT, "[ERROR] Unable to init curl library...\n"},
        {"pthread_mutex_init", 1, ENOMEM,
         "[ERROR] Unable to init mutex for WebClient. Error: 12\n"},
        {"curl_easy_init", 5, 1, "[ERROR] Failed to initialize curl handle\n" + none},
        {"curl_easy_setopt", 1, 48, set + "HEADER" + failed + none},
        {"curl_easy_setopt", 2, 48, set + "VERBOSE" + failed + none},
        {"curl_easy_setopt", 3, 48, set + "DEBUGFUNCTION" + failed + none},
        {"curl_easy_setopt", 4, 48, set + "DEBUGDATA" + failed + none},
        {"curl_easy_setopt", 5, 48, "[ERROR] " + set + "URL" + failed + none},
        {"curl_easy_setopt", 6, 48, "[ERROR] " + set + "WRITEFUNCTION" + failed + none},
        {"curl_easy_setopt", 7, 48, "[ERROR] " + set + "WRITEDATA" + failed + none},
        {"curl_easy_setopt", 8, 48, "[ERROR] c" + set + "FAILONERROR" + failed + none},
        {"curl_easy_setopt", 9, 48, none},  // the header is only missing
        {"", 0, 0, none}};
    for (const Row& row : rows) {
        faults.disarm();
        if (row.n > 0)
            faults.arm(row.function, row.n, row.error);
        EXPECT_EQ(row.logged, log.take([] { idle_client("http://127.0.0.1:1/", "log.http=-1"); }));
    }
    ConfigFile nothing = config_of("");
    EXPECT_EQ(" [WARN] Empty URL value for WebClient. HTTP reporting is unavailable.\n",
              log.take([&nothing] { const WebClient off(&nothing); }));
}

TEST(WebClient, OutlivesTransmissionsThatFail)
{
    LogCapture log;
    HttpServer server;
    WebClient client = idle_client(server.url, "log.http=0");
    log.take();
    QoSPacket packet = report(200);
    const std::string set = "[ERROR] curl_easy_setopt(CURLOPT_";
    struct Row {
        const char* function;
        int n, error, times;
        std::string logged;
        std::size_t posts;
    };
    const Row rows[] = {// six of them: each handle is idle again
                        {"curl_easy_perform", 1, 7, 6,
                         "[ERROR] Unable to transmitt http - curl_easy_perform failed: 7\n", 0},
                        {"curl_easy_setopt", 1, 48, 6, set + "POSTFIELDS) failed...\n", 6},
                        {"curl_easy_setopt", 2, 48, 1, set + "POSTFIELDSIZE) failed...\n", 7},
                        {"", 0, 0, 1, "", 8}};
    for (const Row& row : rows) {
        for (int i = 0; i < row.times; i++) {
            faults.disarm();
            if (row.n > 0)
                faults.arm(row.function, row.n, row.error);
            EXPECT_EQ(200, client.WC_Write(&packet));
            faults.clock_shift += 6;
            client.wc_perform();
            EXPECT_EQ(row.logged, log.take());
        }
        EXPECT_EQ(row.posts, server.requests().size());
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
        log.take();
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(" WebClient OVERFLOW\n",
                      log.take([&] { EXPECT_EQ(0, client.WC_Write(&more)); }));
        client.wc_perform();
        log.take();
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
    log.take();
    QoSPacket packet = report(200);
    EXPECT_EQ(200, client.WC_Write(&packet));
    client.wc_perform();
    EXPECT_EQ(" [INFO] Skipping http transmission - no available idle curl handles!\n", log.take());
    EXPECT_EQ(202, client.WC_Write(&packet));
}

TEST(WebClient, PostsEachLineOnceFromItsFiveWorkers)
{
    constexpr int LINES = 600;
    LogCapture log;
    HttpServer server;
    PauseWatch pauses;
    ConfigFile config = config_of("log.http=2\nelastic_url=" + server.url);
    WebClient client(&config);
    for (int i = 0; i < LINES; i++) {
        const std::string text = "QOS_EV_TYPE=QOS_NEAREND\nQOS_EV_RTCP_CNAME=n" + std::to_string(i);
        QoSPacket packet(text.c_str(), "");
        EXPECT_LT(0, client.WC_Write(&packet));
        faults.clock_shift += 6;
    }
    for (const char* const worker : {"0", "1", "2", "3", "4"})
        EXPECT_TRUE(pauses.seen("QoS_Web_" + std::string(worker) + " 100000"));
    std::string posted;
    EXPECT_TRUE(eventually([&] {
        posted.clear();
        for (const HttpServer::Request& request : server.requests())
            posted += request.body;
        return count(posted, "\"}") >= LINES;
    }));
    for (int i = 0; i < LINES; i++)
        EXPECT_EQ(1U, count(posted, " n" + std::to_string(i) + "\"}")) << i;
    client.wc_stop();
    QoSPacket packet = report(200);
    EXPECT_EQ(0, client.WC_Write(&packet));
    EXPECT_EQ(5U, count(log.take(), " [INFO] Terminating WebClient thread...\n"));
}
