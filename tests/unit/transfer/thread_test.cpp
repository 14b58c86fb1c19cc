// Starting and joining threads, and the one lock they share.
#include "tests/unit/support/faults.h"
#include "tests/unit/support/settings_test.h"
#include "transfer/thread.h"

#include <atomic>
#include <cerrno>
#include <thread>
#include <type_traits>

#include <gtest/gtest.h>

namespace {

/// Notes the thread that ran it.
class NotingThread : public Thread {
public:
    void run() override {
        runner = std::this_thread::get_id();
        ++runs;
    }

    std::thread::id runner;
    int runs = 0;
};

/// Tries to take the lock.
class TryingThread : public Thread {
public:
    void run() override {
        lock();
        entered = true;
        unlock();
    }

    std::atomic<bool> entered{false};
};

static_assert(std::is_abstract_v<Thread>, "the body is the derived class's");
static_assert(std::has_virtual_destructor_v<Thread>, "threads are deleted through their base");

/// True if another thread could take the mutex at this moment.
bool isFree(pthread_mutex_t* mutex) {
    bool taken = false;
    std::thread other([mutex, &taken] {
        taken = pthread_mutex_trylock(mutex) == 0;
        if (taken) {
            pthread_mutex_unlock(mutex);
        }
    });
    other.join();
    return taken;
}

class ThreadTest : public SettingsTest {};

} // namespace

TEST_F(ThreadTest, RunsTheDerivedBodyOnceInAThreadOfItsOwn) {
    NotingThread thread;
    ASSERT_EQ(thread.start(), 0);
    ASSERT_EQ(thread.join(), 0);
    EXPECT_EQ(thread.runs, 1);
    EXPECT_NE(thread.runner, std::this_thread::get_id());
    EXPECT_NE(thread.runner, std::thread::id());
}

TEST_F(ThreadTest, RunsNothingBeforeItIsStarted) {
    const NotingThread thread{};
    EXPECT_EQ(thread.runs, 0);
}

TEST_F(ThreadTest, HandsTheResultOfAFailedStartBack) {
    NotingThread thread;
    FAULTS::pthreadCreate.failAfter(0, EAGAIN);
    EXPECT_EQ(thread.start(), EAGAIN);
    EXPECT_EQ(thread.runs, 0);
}

TEST_F(ThreadTest, SharesOneMutexAmongAllObjects) {
    const NotingThread first{};
    const TryingThread second{};
    EXPECT_NE(first.mutex(), nullptr);
    EXPECT_EQ(first.mutex(), second.mutex());
    EXPECT_EQ(first.mutex(), Thread::mainMutex);
}

TEST_F(ThreadTest, MayLockAgainWhatItHoldsAndFreesItWithTheLastUnlock) {
    NotingThread thread;
    thread.lock();
    thread.lock();
    EXPECT_FALSE(isFree(Thread::mainMutex));
    thread.unlock();
    EXPECT_FALSE(isFree(Thread::mainMutex));
    thread.unlock();
    EXPECT_TRUE(isFree(Thread::mainMutex));
}

TEST_F(ThreadTest, BlocksAnotherThreadsLockUntilTheSecondUnlock) {
    NotingThread holder;
    TryingThread waiter;
    holder.lock();
    holder.lock();
    ASSERT_EQ(waiter.start(), 0);
    holder.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(waiter.entered);
    holder.unlock();
    ASSERT_EQ(waiter.join(), 0);
    EXPECT_TRUE(waiter.entered);
}

TEST_F(ThreadTest, CreatesRecursiveMutexes) {
    pthread_mutex_t* const mutex = Thread::initializeMutex();
    EXPECT_NE(mutex, Thread::mainMutex);
    EXPECT_EQ(pthread_mutex_lock(mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
    EXPECT_FALSE(isFree(mutex));
    EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
    EXPECT_TRUE(isFree(mutex));
    pthread_mutex_destroy(mutex);
    delete mutex;
}
