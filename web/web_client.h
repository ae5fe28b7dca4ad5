// HTTP reporting: delivers the JSON objects of the reports, in batches, to the server at
// elastic_url.
//
// The main thread appends lines to one bounded buffer. Five workers "QoS_Web_0" to "QoS_Web_4"
// look at it every 100 ms; the one that finds a batch due takes the whole buffer and posts it as
// a JSON array through an idle handle. A batch that fails is lost, and so are the lines that are
// still buffered at the stop. Nothing is retried here, but libcurl sends a request once more when
// the server closes a reused connection without an answer: a batch may arrive twice, but the log
// reports one transmission. The only time-outs are libcurl's.
// Logs through the group "HTTP", whose level is log.http.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "log/logger_helper.h"
#include "web/http_handle.h"
#include "web/http_thread.h"

class ConfigFile;
class QoSPacket;

class WebClient : public LoggerHelper {
public:
    // Reads elastic_url and log.http, builds the handles and starts the workers. An empty URL
    // switches reporting off, with a message, and so does a failure to initialise libcurl or the
    // lock. Any other failure is logged; the handles and workers that could be created do the work.
    // Throws only std::bad_alloc. Main thread.
    explicit WebClient(ConfigFile* config);

    // Stops the workers, deletes the handles and logs what was sent.
    ~WebClient();
    WebClient(const WebClient&) = delete;
    WebClient& operator=(const WebClient&) = delete;

    // Offers one report for the next batch. Returns the bytes added to the buffer, or 0 when
    // reporting is off, the report is a session summary or has no line, the buffer is full or
    // memory is exhausted. Never throws. Main thread.
    int WC_Write(QoSPacket* packet);

    // Stops the workers, after their current transfers. May be called again. Main thread.
    void wc_stop();

    // Thread entry; the argument is the WebClient. Returns null.
    static void* wc_execute(void* web_client);

    // The worker's body.
    void wc_run();

    // One look at the buffer and, when a batch is due, one transmission, which takes as long as
    // libcurl lets it. Never throws. Worker threads.
    void wc_perform();

private:
    static constexpr std::size_t POOL_SIZE = 5;  // handles, and as many workers

    static bool zklibcurl_global_init;  // libcurl is initialised, once per process

    bool wc_init_curl();
    void wc_start_workers();
    bool wc_batch_is_due() const;
    HttpHanle* wc_find_idle_handle() const;
    void wc_transmit(HttpHanle& handle);

    std::string url;
    std::array<std::unique_ptr<HttpHanle>, POOL_SIZE> curl_handles;
    std::array<HttpThread, POOL_SIZE> http_threads;
    pthread_mutex_t wc_mutex{};  // guards http_buffer, last_send_time and the pick of a handle
    std::atomic<bool> stopped{true};
    std::string http_buffer;                   // lines not yet sent, joined by ",\n"
    std::uint32_t overflow_count = 0;          // main thread only, as lines_sent
    time_t last_send_time = 0;                 // when the last transmission started; 0 at first
    std::uint32_t lines_sent = 0;              // lines accepted since the start
    std::atomic<std::uint32_t> bytes_sent{0};  // body bytes of all transmissions started
};
