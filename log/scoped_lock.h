// Holds a pthread mutex until the end of the scope, exceptions included.
#pragma once

#include <pthread.h>

class ScopedLock {
public:
    // The mutex must be initialised, not held by the caller, and outlive the scope.
    explicit ScopedLock(pthread_mutex_t& mutex) : _mutex(mutex) { pthread_mutex_lock(&_mutex); }
    ~ScopedLock() { pthread_mutex_unlock(&_mutex); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    pthread_mutex_t& _mutex;
};
