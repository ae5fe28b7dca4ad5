#include "web/http_thread.h"

int HttpThread::t_start(void* (*entry)(void*), void* argument, const char* name)
{
    const int rc = pthread_create(&thread_id, nullptr, entry, argument);
    if (rc == 0) {
        active = true;
        (void)pthread_setname_np(thread_id, name);  // for display only
    }
    return rc;
}

void HttpThread::t_stop()
{
    if (active) {
        pthread_join(thread_id, nullptr);
        active = false;
    }
}
