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

void countAlarm(int /*signalNumber*/) {
    alarms = alarms + 1;
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
    timespec before = {};
    timespec after = {};
    clock_gettime(CLOCK_MONOTONIC, &before);
    UTILITIES::sleepMilliSeconds(30);
    clock_gettime(CLOCK_MONOTONIC, &after);
    const long slept =
        (after.tv_sec - before.tv_sec) * 1000 * millisecond + after.tv_nsec - before.tv_nsec;
    EXPECT_GE(slept, 30 * millisecond);
}

TEST(SleepMilliSeconds, ResumesWithWhatWasLeftAfterASignal) {
    struct sigaction counting = {};
    counting.sa_handler = countAlarm;
    struct sigaction before = {};
    alarms = 0;
    ASSERT_EQ(sigaction(SIGALRM, &counting, &before), 0);
    itimerval timer = {};
    timer.it_value.tv_usec = 100000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);

    const FAULTS::SleepWatcher watcher;
    UTILITIES::sleepMilliSeconds(300);
    sigaction(SIGALRM, &before, nullptr);

    EXPECT_EQ(alarms, 1);
    ASSERT_EQ(watcher.sleeps().size(), 2U);
    EXPECT_EQ(watcher.sleeps()[0].nanoseconds, 300 * millisecond);
    EXPECT_EQ(watcher.sleeps()[1].seconds, 0);
    EXPECT_GT(watcher.sleeps()[1].nanoseconds, 0);
    EXPECT_LE(watcher.sleeps()[1].nanoseconds, 201 * millisecond);
}
