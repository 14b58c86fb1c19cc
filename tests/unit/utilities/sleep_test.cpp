// Sleeping in pieces.
#include "tests/unit/support/faults.h"
#include "utilities/sleep.h"

#include <csignal>
#include <ctime>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr long millisecond = 1000000; // in nanoseconds

/// The nanoseconds of every request that sleeping so long makes; the seconds are always 0.
std::vector<long> requestsFor(long milliseconds) {
    const FAULTS::SleepRecorder recorder;
    UTILITIES::sleepMilliSeconds(milliseconds);
    std::vector<long> requests;
    for (const FAULTS::Sleep& sleep : recorder.sleeps()) {
        EXPECT_EQ(sleep.seconds, 0);
        requests.push_back(sleep.nanoseconds);
    }
    return requests;
}

volatile sig_atomic_t alarms = 0;

/// Counts alarms and puts an end to them.
void countAlarm(int signalNumber) {
    alarms = alarms + 1;
    if (alarms == 2) {
        signal(signalNumber, SIG_IGN);
    }
}

/// Nanoseconds of a clock that never goes back.
long now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000 * millisecond + time.tv_nsec;
}

} // namespace

TEST(SleepMilliSeconds, MakesOneZeroLengthRequestForZero) {
    EXPECT_THAT(requestsFor(0), ElementsAre(0));
}

TEST(SleepMilliSeconds, MakesOneRequestForUpToHalfASecond) {
    EXPECT_THAT(requestsFor(1), ElementsAre(1 * millisecond));
    EXPECT_THAT(requestsFor(499), ElementsAre(499 * millisecond));
    EXPECT_THAT(requestsFor(500), ElementsAre(500 * millisecond));
}

TEST(SleepMilliSeconds, MakesARequestForTheRemainderBehindTheHalfSeconds) {
    EXPECT_THAT(requestsFor(501), ElementsAre(500 * millisecond, 1 * millisecond));
    EXPECT_THAT(requestsFor(1250),
                ElementsAre(500 * millisecond, 500 * millisecond, 250 * millisecond));
}

TEST(SleepMilliSeconds, MakesAZeroLengthRequestForARemainderOfZero) {
    EXPECT_THAT(requestsFor(1000), ElementsAre(500 * millisecond, 500 * millisecond, 0));
}

TEST(SleepMilliSeconds, ReturnsAtOnceForANegativeValue) {
    EXPECT_THAT(requestsFor(-1), IsEmpty());
    EXPECT_THAT(requestsFor(-1000), IsEmpty());
}

TEST(SleepMilliSeconds, ReallySleeps) {
    const long before = now();
    UTILITIES::sleepMilliSeconds(30);
    EXPECT_GE(now() - before, 30 * millisecond);
}

TEST(SleepMilliSeconds, ResumesWithWhatWasLeftAfterASignal) {
    struct sigaction counting = {};
    counting.sa_handler = countAlarm;
    struct sigaction before = {};
    alarms = 0;
    ASSERT_EQ(sigaction(SIGALRM, &counting, &before), 0);
    // One alarm may come before the sleep begins; the second can't miss it.
    itimerval timer = {};
    timer.it_value.tv_usec = 100000;
    timer.it_interval.tv_usec = 100000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);

    const FAULTS::SleepWatcher watcher;
    const long start = now();
    UTILITIES::sleepMilliSeconds(300);
    const long slept = now() - start;
    timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
    sigaction(SIGALRM, &before, nullptr);

    EXPECT_GE(slept, 300 * millisecond);
    ASSERT_GE(watcher.sleeps().size(), 2U);
    EXPECT_EQ(watcher.sleeps()[0].nanoseconds, 300 * millisecond);
    for (std::size_t i = 1; i < watcher.sleeps().size(); ++i) {
        EXPECT_EQ(watcher.sleeps()[i].seconds, 0);
        EXPECT_LT(watcher.sleeps()[i].nanoseconds, watcher.sleeps()[i - 1].nanoseconds);
    }
}
