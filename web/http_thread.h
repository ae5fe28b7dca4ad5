// One worker thread of the web client.
//
// Started and stopped by the main thread. Stopping a thread that was not started does nothing.
#pragma once

#include <pthread.h>

class HttpThread {
public:
    HttpThread() = default;
    ~HttpThread() { t_stop(); }
    HttpThread(const HttpThread&) = delete;
    HttpThread& operator=(const HttpThread&) = delete;

    // Creates the thread. Returns 0, or the error number when it could not be created.
    int t_start(void* (*entry)(void*), void* argument, const char* name);

    // Joins the thread if it is active. Does not tell it to exit: WebClient::wc_stop() has set the
    // flag for that.
    void t_stop();

private:
    pthread_t thread_id{};
    bool active = false;  // created and not yet joined
};
