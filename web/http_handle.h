// One libcurl easy handle, configured once to POST JSON, with the state that tells whether a
// worker is using it.
//
// A pool of these serves the workers of WebClient, which owns them. The easy handle is used by
// one worker at a time; the state may be read and set by all. Logs through the group given.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "log/logger_helper.h"

enum HANDLE_STATE : int {
    HANDLE_INVALID = -1,  // construction did not complete: never used
    HANDLE_IDLE = 0,      // ready for a transmission
    HANDLE_BUSY = 1,      // a worker is transmitting with it
};

// Spelt as the system's other parts know it.
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

    // Sets the body of the next request, by the worker that made the handle busy. libcurl does not
    // copy it: the handle keeps it until the next one has taken its place. A failure is logged; the
    // request then has another body, empty, cut off or with blanks at its end, but nothing that is
    // not the handle's own. The body must have room for posted_size() characters.
    void set_body(std::shared_ptr<std::string> new_body);
    std::size_t posted_size() const { return body_size; }

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
    template <typename Value>
    bool set_option(CURLoption option, Value value) const;

    static std::atomic<int> idle_handles;  // of the whole process; for the trace message only
    static void drop_idle_handle();

    std::string url;
    curl_slist* http_headers = nullptr;  // owned
    std::atomic<HANDLE_STATE> state{HANDLE_INVALID};
    CURL* curl_handle = nullptr;        // owned
    std::shared_ptr<std::string> body;  // what libcurl points at; null until the first
    std::size_t body_size = 0;          // the length that libcurl takes it to have
};
