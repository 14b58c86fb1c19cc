// The base of every thread of the daemon, and the one lock they share.
#pragma once

#include <pthread.h>

/// One POSIX thread. A derived class gives the body, `run`; the owner calls `start`, later `join`,
/// and only then destroys the object: the destructor neither joins nor cancels.
class Thread {
public:
    Thread() = default;
    virtual ~Thread() = default;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// The thread's body.
    virtual void run() = 0;

    /// Starts the thread. Returns pthread_create's result unchanged.
    int start();

    /// Waits for the thread to end. Returns pthread_join's result unchanged. To be called by the
    /// owner, once, after a successful `start`.
    int join();

    /// Locks and unlocks `mainMutex`: on whatever object it is called, it is the same lock.
    void lock();
    void unlock();

    /// The process-wide mutex, for objects that share it.
    pthread_mutex_t* mutex() const;

    /// Creates a recursive mutex, never destroyed.
    static pthread_mutex_t* initializeMutex();

    /// The process-wide lock. It guards every worker's list of copy-process ids, every rewrite of
    /// the PID file, and every write-out and rotation of the log by workers and evaluators.
    /// Recursive, for a worker logs while it holds it. Whoever holds it does nothing slower than
    /// that.
    static pthread_mutex_t* mainMutex;

private:
    /// Start routine of every thread: runs the object it is given.
    static void* startThread(void* object);

    pthread_t handle; // set by a successful start(), meaningless before
};
