// One libcurl easy handle, configured once to POST JSON, and whether a worker is using it.
//
// A pool of these serves the workers of WebClient, which owns them. The easy handle is used by
// one worker at a time; the state may be read and set by all. Logs through the group given.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <cstddef>
#include <optional>
#include <string>

#include "log/logger_helper.h"

enum HANDLE_STATE : int {
    HANDLE_INVALID = -1,  // construction did not complete: never used
    HANDLE_IDLE = 0,      // ready for a transmission
    HANDLE_BUSY = 1,      // a worker is transmitting with it
};

// The spelling is a public name and stays.
class HttpHanle : public LoggerHelper {
public:
    // Builds and configures the handle. A failure is reported by a message and leaves the handle
    // HANDLE_INVALID. Main thread, after curl_global_init.
    HttpHanle(std::string server_url, DebugGroup* debug_group);
    ~HttpHanle();
    HttpHanle(const HttpHanle&) = delete;
    HttpHanle& operator=(const HttpHanle&) = delete;

    bool is_idle() const { return state == HANDLE_IDLE; }

    // Sets the state, keeps the count of idle handles and traces it. HANDLE_BUSY is set under the
    // web client's lock, after is_idle(), so that a handle goes to one worker only.
    void set_state(HANDLE_STATE new_state);

    // Moves the lines, which json_frame::SEPARATOR joins, into the body of the next request, as a
    // JSON array. This and the next two are for the worker that made the handle busy. Never throws.
    void take_lines(std::string& lines);
    const std::string& request_body() const { return body; }

    // Passes the body to libcurl. After a failure, which is logged, the post may be a part of the
    // body, or end with the rest of an earlier, longer body. Returns the number of bytes that will
    // be posted.
    std::size_t set_body();

    // The easy handle: for performing the transfer, by the worker that made it busy. Null when
    // construction failed early.
    CURL* easy_handle() const { return curl_handle; }

    // libcurl's write function: the response is discarded. Returns the bytes taken.
    static unsigned long curl_write_resp_clbk(void* data, unsigned long size, unsigned long nmemb,
                                              void* userdata) noexcept;
    unsigned long http_response(char* data, unsigned long length) noexcept;

    // libcurl's debug function: a piece of its trace goes to the log at DBG_TRACE, without its
    // trailing line feeds. On the thread that performs the transfer.
    static int curl_debug_callback(void* handle, curl_infotype type, char* data, unsigned long size,
                                   void* userdata) noexcept;
    int http_curl_debug(char* data, unsigned long size) noexcept;

private:
    bool set_options();

    static std::atomic<int> idle_handles;  // of the whole process; for the trace message only
    static void drop_idle_handle();

    std::string url;
    curl_slist* http_headers = nullptr;  // owned
    std::atomic<HANDLE_STATE> state{HANDLE_INVALID};
    CURL* curl_handle = nullptr;  // owned
    // libcurl does not copy the body. Its characters stay at one place for the life of the handle,
    // so that a pointer and a length that libcurl keeps after a failure lie inside it.
    std::string body;
    bool has_body = false;                 // libcurl has the pointer
    std::optional<std::size_t> body_size;  // what libcurl has; without, it counts to the zero byte
};
