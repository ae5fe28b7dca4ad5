// One worker thread of the web client.
//
// Started and stopped by the main thread; an object that was never started is stopped at once.
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

    // Joins the thread if it is active, and tells it nothing: WebClient::wc_stop() has raised the
    // flag that ends it.
    void t_stop();

private:
    pthread_t thread_id{};
    bool active = false;  // created and not yet joined
};
