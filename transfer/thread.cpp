// Starting and joining threads; creating the process-wide mutex.
#include "transfer/thread.h"

pthread_mutex_t* Thread::mainMutex = Thread::initializeMutex();

pthread_mutex_t* Thread::initializeMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    auto* const created = new pthread_mutex_t;
    pthread_mutex_init(created, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return created;
}

void* Thread::startThread(void* object) {
    static_cast<Thread*>(object)->run();
    return nullptr;
}

int Thread::start() {
    return pthread_create(&handle, nullptr, startThread, this);
}

int Thread::join() {
    return pthread_join(handle, nullptr);
}

void Thread::lock() {
    pthread_mutex_lock(mainMutex);
}

void Thread::unlock() {
    pthread_mutex_unlock(mainMutex);
}

pthread_mutex_t* Thread::mutex() const {
    return mainMutex;
}
