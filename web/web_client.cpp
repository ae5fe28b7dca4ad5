#include "web/web_client.h"

#include <unistd.h>

#include <sstream>
#include <string_view>

#include "config/config_file.h"
#include "config/keys.h"
#include "log/scoped_lock.h"
#include "log/simple_logger.h"
#include "records/qos_packet.h"
#include "web/batch_frame.h"

namespace {

constexpr std::size_t BATCH_SIZE = 10240;  // a batch this large is sent at once
constexpr time_t BATCH_AGE_SECONDS = 5;    // a smaller one when more has passed
constexpr std::size_t MAX_BUFFERED = 102400;
constexpr useconds_t SLEEP_US = 100000;

// As a standard output stream prints a pointer.
std::string address_text(const void* address)
{
    std::ostringstream text;
    text << address;
    return text.str();
}

std::string batch_text(const void* easy, const std::string& body)
{
    return std::to_string(body.size()) + " bytes for the curl handle " + address_text(easy);
}

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
        LogStr(DBG_ERROR, "Unable to init mutex for WebClient. Error: " + std::to_string(rc));
        return;
    }
    lock_ready = true;
    stopped = false;
    wc_start_workers();
}

WebClient::~WebClient()
{
    wc_stop();
    for (auto& handle : curl_handles)
        handle.reset();
    if (lock_ready)
        pthread_mutex_destroy(&wc_mutex);
    LogStr(DBG_INFO, "WebClient stat: Lines Sent=" + std::to_string(lines_sent) +
                         "; Bytes Sent=" + std::to_string(bytes_sent));
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
                   "Unable to create new thread for WebClient. Error: " + std::to_string(rc));
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
    std::size_t added = line.size();
    {
        const ScopedLock lock(wc_mutex);
        if (http_buffer.size() > MAX_BUFFERED) {
            added = 0;
        } else {
            if (!http_buffer.empty()) {
                http_buffer += batch_frame::SEPARATOR;
                added += batch_frame::SEPARATOR.size();
            }
            http_buffer += line;
        }
    }
    if (added == 0) {
        overflow_count++;
        dbg_print_line(" WebClient OVERFLOW");
        return 0;
    }
    lines_sent++;
    if (overflow_count != 0) {
        LogStr(DBG_WARN, "WebClient OVERFLOW: " + std::to_string(overflow_count));
        overflow_count = 0;
    }
    if (log_passes(DBG_DEBUG))
        LogStr(DBG_DEBUG, "WebClient::WC_Write() new event: " + std::string(line));
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
    std::string body;
    HttpHanle* const handle = wc_take_batch(body);
    if (handle == nullptr)
        return;
    CURL* const easy = handle->easy_handle();
    wc_set_body(easy, body);
    bytes_sent += static_cast<std::uint32_t>(body.size());
    wc_transmit(easy, body);
    if (wc_forget_body(easy))
        handle->set_state(HANDLE_IDLE);  // else it stays busy, and its stale body is never sent
}

bool WebClient::wc_batch_is_due() const
{
    return http_buffer.size() >= BATCH_SIZE || time(nullptr) - last_send_time > BATCH_AGE_SECONDS;
}

HttpHanle* WebClient::wc_pick_idle_handle()
{
    for (auto& handle : curl_handles) {
        if (handle->is_idle()) {
            handle->set_state(HANDLE_BUSY);
            return handle.get();
        }
    }
    return nullptr;
}

// One critical section from the due test to the time of the transmission: no other worker may
// take the same lines, the same handle, or start a small batch in between. Returns the handle to
// send the body with, or null when there is nothing to send.
HttpHanle* WebClient::wc_take_batch(std::string& body)
{
    const ScopedLock lock(wc_mutex);
    if (http_buffer.empty() || !wc_batch_is_due())
        return nullptr;
    HttpHanle* const handle = wc_pick_idle_handle();
    if (handle == nullptr) {
        LogStr(DBG_INFO, "Skipping http transmission - no available idle curl handles!");
        return nullptr;
    }
    body.reserve(batch_frame::START.size() + http_buffer.size() + batch_frame::END.size());
    body.append(batch_frame::START).append(http_buffer).append(batch_frame::END);
    http_buffer.clear();
    last_send_time = time(nullptr);
    return handle;
}

// The body is not copied: it lives in the worker until the transfer has ended. After a failure the
// transmission goes on with an empty one.
void WebClient::wc_set_body(CURL* easy, const std::string& body)
{
    auto size = static_cast<long>(body.size());
    if (curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data()) != CURLE_OK) {
        LogStr(DBG_ERROR, "curl_easy_setopt(CURLOPT_POSTFIELDS) failed...");
        size = 0;
    }
    if (curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, size) != CURLE_OK)
        LogStr(DBG_ERROR, "curl_easy_setopt(CURLOPT_POSTFIELDSIZE) failed...");
}

// Takes the body, which ends with its worker's pass, out of libcurl's hands.
bool WebClient::wc_forget_body(CURL* easy)
{
    if (curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, 0L) == CURLE_OK &&
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, "") == CURLE_OK)
        return true;
    LogStr(DBG_ERROR, "curl_easy_setopt(CURLOPT_POSTFIELDS) failed...");
    return false;
}

void WebClient::wc_transmit(CURL* easy, const std::string& body)
{
    if (log_passes(DBG_TRACE))
        LogStr(DBG_TRACE, "Starting http transmission of " + batch_text(easy, body));
    if (log_passes(DBG_DEBUG))
        LogStr(DBG_DEBUG, "HTTP buffer sent for the handle: " + address_text(easy) + "\n" + body);
    const CURLcode result = curl_easy_perform(easy);
    if (result != CURLE_OK)
        LogStr(DBG_ERROR,
               "Unable to transmitt http - curl_easy_perform failed: " + std::to_string(result));
    else if (log_passes(DBG_INFO))
        LogStr(DBG_INFO, "Finished http transmission of " + batch_text(easy, body));
}
