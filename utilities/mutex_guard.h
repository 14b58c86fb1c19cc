// Holding a mutex for the life of a scope.
#pragma once

#include <pthread.h>

/// Holds a mutex for the life of a scope; a null mutex is no mutex.
class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t* mutexToHold) : held(mutexToHold) {
        if (held != nullptr) {
            pthread_mutex_lock(held);
        }
    }
    ~MutexGuard() {
        if (held != nullptr) {
            pthread_mutex_unlock(held);
        }
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    pthread_mutex_t* held;
};
