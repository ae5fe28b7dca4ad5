#include "web/http_handle.h"

#include <string_view>
#include <utility>

#include "log/simple_logger.h"
#include "records/json_frame.h"

namespace {

// Twice the limit of the buffer: a batch is at most a full buffer and one more line.
constexpr std::size_t BODY_ROOM = 204800;

constexpr std::string_view SETOPT = "curl_easy_setopt(";
constexpr std::string_view FAILED = ") failed...";

}  // namespace

std::atomic<int> HttpHanle::idle_handles{0};

HttpHanle::HttpHanle(std::string server_url, DebugGroup* debug_group)
    : LoggerHelper(debug_group), url(std::move(server_url))
{
    body.reserve(BODY_ROOM);
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
    curl_easy_cleanup(curl_handle);
    curl_slist_free_all(http_headers);
    drop_idle_handle();
}

// Reports the first option that fails. The first four concern the output to the log, so their
// failure is printed instead.
bool HttpHanle::set_options()
{
    const char* name = nullptr;
    const auto accepts = [&](const char* option_name, CURLoption option, auto value) {
        name = option_name;
        return curl_easy_setopt(curl_handle, option, value) == CURLE_OK;
    };
    if (!accepts("CURLOPT_HEADER", CURLOPT_HEADER, 1L) ||
        !accepts("CURLOPT_VERBOSE", CURLOPT_VERBOSE, 1L) ||
        !accepts("CURLOPT_DEBUGFUNCTION", CURLOPT_DEBUGFUNCTION, curl_debug_callback) ||
        !accepts("CURLOPT_DEBUGDATA", CURLOPT_DEBUGDATA, this)) {
        dbg_print_line({SETOPT, name, FAILED});
        return false;
    }
    if (!accepts("CURLOPT_URL", CURLOPT_URL, url.c_str()) ||
        !accepts("CURLOPT_WRITEFUNCTION", CURLOPT_WRITEFUNCTION, curl_write_resp_clbk) ||
        !accepts("CURLOPT_WRITEDATA", CURLOPT_WRITEDATA, this)) {
        LogStr(DBG_ERROR, {SETOPT, name, FAILED});
        return false;
    }
    if (!accepts("CURLOPT_FAILONERROR", CURLOPT_FAILONERROR, 0L)) {
        LogStr(DBG_ERROR, {"c", SETOPT, name, FAILED});  // "ccurl": alerts match this text
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
    // Count first: as soon as the state is idle, another worker may take the handle.
    if (new_state == HANDLE_IDLE)
        idle_handles++;
    else
        drop_idle_handle();
    state = new_state;
    LogStr(DBG_TRACE, {"Total idle curl handles: ", std::to_string(idle_handles)});
}

// The reserved body is large enough, so this allocates nothing, and libcurl's pointer stays valid.
void HttpHanle::take_lines(std::string& lines)
{
    body.assign(json_frame::BATCH_START).append(lines).append(json_frame::BATCH_END);
    lines.clear();
}

std::size_t HttpHanle::set_body()
{
    if (curl_easy_setopt(curl_handle, CURLOPT_POSTFIELDS, body.c_str()) == CURLE_OK)
        has_body = true;
    else
        LogStr(DBG_ERROR, {SETOPT, "CURLOPT_POSTFIELDS", FAILED});
    if (curl_easy_setopt(curl_handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size())) ==
        CURLE_OK)
        body_size = body.size();
    else
        LogStr(DBG_ERROR, {SETOPT, "CURLOPT_POSTFIELDSIZE", FAILED});
    return has_body ? body_size.value_or(body.size()) : 0;
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
