#include "web/web_client.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "config/config_file.h"
#include "config/keys.h"
#include "log/append_bounded.h"
#include "log/scoped_lock.h"
#include "log/simple_logger.h"
#include "records/json_frame.h"
#include "records/qos_packet.h"

namespace {

constexpr std::size_t BATCH_SIZE = 10240;  // a batch this large is sent at once
constexpr time_t BATCH_AGE_SECONDS = 5;    // a smaller one when more has passed
constexpr std::int64_t MAX_BUFFERED = 102400;
constexpr useconds_t SLEEP_US = 100000;

}  // namespace

bool WebClient::zklibcurl_global_init = false;

WebClient::WebClient(ConfigFile* config) : url(keys::ELASTIC_URL.text_in(*config))
{
    create_group(keys::LOG_HTTP.number_in(*config), "HTTP");
    if (url.empty()) {
        LogStr(DBG_WARN, "Empty URL value for WebClient. HTTP reporting is unavailable.");
        return;
    }
    http_buffer.reserve(BATCH_SIZE);
    if (!wc_init_curl())
        return;
    for (auto& handle : curl_handles)
        handle = std::make_unique<HttpHanle>(url, group);
    const int rc = pthread_mutex_init(&wc_mutex, nullptr);
    if (rc != 0) {  // without its lock the buffer cannot be shared: reporting stays off
        LogStr(DBG_ERROR, {"Unable to init mutex for WebClient. Error: ", std::to_string(rc)});
        return;
    }
    stopped = false;
    wc_start_workers();
}

WebClient::~WebClient()
{
    wc_stop();
    for (auto& handle : curl_handles)
        handle.reset();
    LogStr(DBG_INFO, {"WebClient stat: Lines Sent=", std::to_string(lines_sent),
                      "; Bytes Sent=", std::to_string(bytes_sent)});
}

bool WebClient::wc_init_curl()
{
    if (!zklibcurl_global_init) {
        if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK) {
            LogStr(DBG_ERROR, "Unable to init curl library...");
            return false;
        }
        zklibcurl_global_init = true;
    }
    return true;
}

void WebClient::wc_start_workers()
{
    int number = 0;
    for (HttpThread& worker : http_threads) {
        const std::string name = "QoS_Web_" + std::to_string(number++);
        const int rc = worker.t_start(wc_execute, this, name.c_str());
        if (rc != 0)
            LogStr(DBG_ERROR,
                   {"Unable to create new thread for WebClient. Error: ", std::to_string(rc)});
    }
}

void WebClient::wc_stop()
{
    stopped = true;
    for (HttpThread& worker : http_threads)
        worker.t_stop();
}

int WebClient::WC_Write(QoSPacket* packet)
{
    if (stopped || packet->is_eos())
        return 0;
    const std::string_view line = packet->http_log_string();
    if (line.empty())
        return 0;
    std::size_t added = 0;
    {
        const ScopedLock lock(wc_mutex);
        added = append_bounded(http_buffer, MAX_BUFFERED,
                               {http_buffer.empty() ? "" : json_frame::SEPARATOR, line});
    }
    if (added == 0) {
        overflow_count++;
        dbg_print_line({" WebClient OVERFLOW"});
        return 0;
    }
    lines_sent++;
    if (overflow_count != 0) {
        LogStr(DBG_WARN, {"WebClient OVERFLOW: ", std::to_string(overflow_count)});
        overflow_count = 0;
    }
    LogStr(DBG_DEBUG, {"WebClient::WC_Write() new event: ", line});
    return static_cast<int>(added);
}

void* WebClient::wc_execute(void* web_client)
{
    if (web_client != nullptr)
        static_cast<WebClient*>(web_client)->wc_run();
    return nullptr;
}

void WebClient::wc_run()
{
    while (!stopped) {
        wc_perform();
        usleep(SLEEP_US);
    }
    LogStr(DBG_INFO, "Terminating WebClient thread...");
}

void WebClient::wc_perform()
{
    HttpHanle* handle = nullptr;
    {
        // One critical section from the due test to the time of the transmission: no other worker
        // may take the same lines, the same handle, or start a small batch in between.
        const ScopedLock lock(wc_mutex);
        if (http_buffer.empty() || !wc_batch_is_due())
            return;
        handle = wc_find_idle_handle();
        if (handle != nullptr) {
            handle->set_state(HANDLE_BUSY);
            handle->take_lines(http_buffer);
            last_send_time = time(nullptr);
        }
    }
    if (handle == nullptr) {
        LogStr(DBG_INFO, "Skipping http transmission - no available idle curl handles!");
        return;
    }
    wc_transmit(*handle);
    handle->set_state(HANDLE_IDLE);
}

bool WebClient::wc_batch_is_due() const
{
    return http_buffer.size() >= BATCH_SIZE || time(nullptr) - last_send_time > BATCH_AGE_SECONDS;
}

HttpHanle* WebClient::wc_find_idle_handle() const
{
    const auto* const idle = std::find_if(curl_handles.begin(), curl_handles.end(),
                                          [](const auto& handle) { return handle->is_idle(); });
    return idle == curl_handles.end() ? nullptr : idle->get();
}

// "transmitt" is fixed: alerts match this text.
void WebClient::wc_transmit(HttpHanle& handle)
{
    const std::size_t posted = handle.set_body();
    bytes_sent += static_cast<std::uint32_t>(posted);
    const std::string size = std::to_string(posted);
    char address[sizeof "0x0123456789ABCDEF"];
    std::snprintf(address, sizeof address, "%p", static_cast<void*>(handle.easy_handle()));
    LogStr(DBG_TRACE,
           {"Starting http transmission of ", size, " bytes for the curl handle ", address});
    LogStr(DBG_DEBUG, {"HTTP buffer sent for the handle: ", address, "\n", handle.request_body()});
    const CURLcode result = curl_easy_perform(handle.easy_handle());
    if (result != CURLE_OK)
        LogStr(DBG_ERROR,
               {"Unable to transmitt http - curl_easy_perform failed: ", std::to_string(result)});
    else
        LogStr(DBG_INFO,
               {"Finished http transmission of ", size, " bytes for the curl handle ", address});
}
