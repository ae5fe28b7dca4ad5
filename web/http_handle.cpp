#include "web/http_handle.h"

#include <string_view>
#include <utility>

#include "log/simple_logger.h"

std::atomic<int> HttpHanle::idle_handles{0};

HttpHanle::HttpHanle(std::string server_url, DebugGroup* debug_group)
    : LoggerHelper(debug_group), url(std::move(server_url))
{
    curl_handle = curl_easy_init();
    if (curl_handle == nullptr) {
        LogStr(DBG_ERROR, "Failed to initialize curl handle");
        return;
    }
    if (!set_options())
        return;
    http_headers = curl_slist_append(http_headers, "content-type: application/json");
    if (http_headers != nullptr)
        (void)curl_easy_setopt(curl_handle, CURLOPT_HTTPHEADER, http_headers);  // cannot fail
    state = HANDLE_IDLE;
    idle_handles++;
}

HttpHanle::~HttpHanle()
{
    if (curl_handle != nullptr)
        curl_easy_cleanup(curl_handle);
    if (http_headers != nullptr) {
        curl_slist_free_all(http_headers);
        http_headers = nullptr;
    }
    drop_idle_handle();
}

template <typename Value>
bool HttpHanle::set_option(CURLoption option, Value value) const
{
    return curl_easy_setopt(curl_handle, option, value) == CURLE_OK;
}

// The first that fails is reported and ends the construction. A failure of the first four, which
// set up what feeds the log, is said on standard output instead.
bool HttpHanle::set_options()
{
    const char* failed = nullptr;
    if (!set_option(CURLOPT_HEADER, 1L))
        failed = "curl_easy_setopt(CURLOPT_HEADER) failed...";
    else if (!set_option(CURLOPT_VERBOSE, 1L))
        failed = "curl_easy_setopt(CURLOPT_VERBOSE) failed...";
    else if (!set_option(CURLOPT_DEBUGFUNCTION, curl_debug_callback))
        failed = "curl_easy_setopt(CURLOPT_DEBUGFUNCTION) failed...";
    else if (!set_option(CURLOPT_DEBUGDATA, this))
        failed = "curl_easy_setopt(CURLOPT_DEBUGDATA) failed...";
    if (failed != nullptr) {
        dbg_print_line({failed});
        return false;
    }
    if (!set_option(CURLOPT_URL, url.c_str()))
        failed = "curl_easy_setopt(CURLOPT_URL) failed...";
    else if (!set_option(CURLOPT_WRITEFUNCTION, curl_write_resp_clbk))
        failed = "curl_easy_setopt(CURLOPT_WRITEFUNCTION) failed...";
    else if (!set_option(CURLOPT_WRITEDATA, this))
        failed = "curl_easy_setopt(CURLOPT_WRITEDATA) failed...";
    else if (!set_option(CURLOPT_FAILONERROR, 0L))
        failed = "ccurl_easy_setopt(CURLOPT_FAILONERROR) failed...";
    if (failed != nullptr) {
        LogStr(DBG_ERROR, failed);
        return false;
    }
    return true;
}

// Lowers the count of idle handles unless it is 0.
void HttpHanle::drop_idle_handle()
{
    int count = idle_handles;
    while (count > 0 && !idle_handles.compare_exchange_weak(count, count - 1)) {}
}

void HttpHanle::set_state(HANDLE_STATE new_state)
{
    // Counted before it shows as idle: another worker may take it at once.
    if (new_state == HANDLE_IDLE)
        idle_handles++;
    else
        drop_idle_handle();
    state = new_state;
    LogStr(DBG_TRACE, {"Total idle curl handles: ", std::to_string(idle_handles)});
}

void HttpHanle::set_body(std::shared_ptr<std::string> new_body)
{
    std::size_t size = new_body->size();
    if (set_option(CURLOPT_POSTFIELDS, new_body->c_str())) {
        body = std::move(new_body);
    } else {
        LogStr(DBG_ERROR, "curl_easy_setopt(CURLOPT_POSTFIELDS) failed...");
        size = 0;  // libcurl still has the body before, which has been posted
    }
    if (set_option(CURLOPT_POSTFIELDSIZE, static_cast<long>(size))) {
        body_size = size;
        return;
    }
    LogStr(DBG_ERROR, "curl_easy_setopt(CURLOPT_POSTFIELDSIZE) failed...");
    if (body != nullptr && body->size() < body_size)
        body->resize(body_size, ' ');  // within its room, so that it stays where it is
}

unsigned long HttpHanle::curl_write_resp_clbk(void* data, unsigned long size, unsigned long nmemb,
                                              void* userdata) noexcept
{
    if (userdata == nullptr)
        return 0;
    return static_cast<HttpHanle*>(userdata)->http_response(static_cast<char*>(data), size * nmemb);
}

unsigned long HttpHanle::http_response(char* /*data*/, unsigned long length) noexcept
{
    return length;
}

int HttpHanle::curl_debug_callback(void* /*handle*/, curl_infotype /*type*/, char* data,
                                   unsigned long size, void* userdata) noexcept
{
    if (userdata == nullptr)
        return 0;
    return static_cast<HttpHanle*>(userdata)->http_curl_debug(data, size);
}

int HttpHanle::http_curl_debug(char* data, unsigned long size) noexcept
{
    if (data == nullptr || size == 0)
        return static_cast<int>(size);
    std::string_view piece(data, size);
    while (piece.ends_with('\n'))
        piece.remove_suffix(1);
    if (!piece.empty())
        LogStr(DBG_TRACE, piece);
    return 0;
}
