// Holding a mutex for a scope.
#include "utilities/mutex_guard.h"

#include <gtest/gtest.h>

TEST(MutexGuard, HoldsTheMutexForItsScope) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    {
        const MutexGuard guard(&mutex);
        EXPECT_NE(pthread_mutex_trylock(&mutex), 0);
    }
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
}

TEST(MutexGuard, DoesNothingWithoutAMutex) {
    const MutexGuard guard(nullptr);
    SUCCEED();
}
