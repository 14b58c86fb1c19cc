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

/// True if what was asked for differs from so many milliseconds by less than 20.
bool isAbout(long milliseconds, const FAULTS::Sleep& sleep) {
    const long difference = sleep.nanoseconds - milliseconds * millisecond;
    return difference > -20 * millisecond && difference < 20 * millisecond;
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
    // Where the machine holds this thread up, an alarm comes before the sleep begins, or finds more
    // of it left. So there are several attempts; what has to hold in each is asserted in each.
    bool asExpected = false;
    for (int attempt = 0; attempt < 20 && !asExpected; ++attempt) {
        alarms = 0;
        ASSERT_EQ(sigaction(SIGALRM, &counting, attempt == 0 ? &before : nullptr), 0);
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

        EXPECT_GE(slept, 300 * millisecond);
        const std::vector<FAULTS::Sleep>& sleeps = watcher.sleeps();
        ASSERT_GE(sleeps.size(), 1U);
        EXPECT_EQ(sleeps[0].nanoseconds, 300 * millisecond);
        for (std::size_t i = 1; i < sleeps.size(); ++i) {
            EXPECT_EQ(sleeps[i].seconds, 0);
            EXPECT_LT(sleeps[i].nanoseconds, sleeps[i - 1].nanoseconds);
        }
        asExpected = sleeps.size() == 3 && isAbout(200, sleeps[1]) && isAbout(100, sleeps[2]);
    }
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_TRUE(asExpected) << "alarms after 100 and 200 of 300 ms leave 200 and 100";
}
