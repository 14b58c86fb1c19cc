// When something was last counted, by snapshots that follow each other.
#include "control/observe/figure_history.h"
#include "example_snapshot.h"

#include <gtest/gtest.h>

namespace control {

namespace {

class RecentChangesTest : public testing::Test {
protected:
    /// The next snapshot, that many seconds after the one before it.
    const Recent& look(double seconds) {
        snapshot.uptime += seconds;
        changes.note(snapshot);
        return snapshot.recent;
    }

    void noCopyProcesses() {
        for (DetectorSnapshot& detector : snapshot.detectors) {
            detector.copyProcesses = 0;
        }
    }

    Snapshot snapshot = exampleSnapshot();
    RecentChanges changes;
};

TEST_F(RecentChangesTest, CallsTheCountsOfTheFirstLookHistory) {
    snapshot.counts.lost = 3;
    snapshot.counts.complaints = 3;
    snapshot.counts.failedHandoffs = 3;
    const Recent& recent = look(0);
    EXPECT_EQ(recent.watched, 0);
    EXPECT_FALSE(recent.file);
    EXPECT_FALSE(recent.lost);
    EXPECT_FALSE(recent.complaint);
    EXPECT_FALSE(recent.failedHandoff);
}

TEST_F(RecentChangesTest, TellsHowLongAgoEachCountRose) {
    look(0);
    snapshot.files += 5;
    look(1);
    ++snapshot.counts.lost;
    look(1);
    ++snapshot.counts.complaints;
    look(1);
    ++snapshot.counts.failedHandoffs;
    EXPECT_EQ(look(1).watched, 4);
    const Recent& recent = look(10);
    EXPECT_EQ(recent.file, 13);
    EXPECT_EQ(recent.lost, 12);
    EXPECT_EQ(recent.complaint, 11);
    EXPECT_EQ(recent.failedHandoff, 10);
}

TEST_F(RecentChangesTest, CountsTheTimeInWhichCopyProcessesBringNothing) {
    look(0);
    EXPECT_EQ(look(5).fruitless, 5);
    snapshot.counts.reports += 2;
    EXPECT_EQ(look(5).fruitless, 10);
    EXPECT_EQ(snapshot.recent.fruitlessReports, 2U);
    ++snapshot.files;
    EXPECT_FALSE(look(1).fruitless);
    EXPECT_EQ(snapshot.recent.fruitlessReports, 0U);
}

TEST_F(RecentChangesTest, TakesCopyProcessesThatWereTooShortToBeSeenFromTheLog) {
    noCopyProcesses();
    EXPECT_FALSE(look(0).fruitless);
    ++snapshot.counts.processes;
    EXPECT_TRUE(look(1).fruitless);
    ++snapshot.counts.processes;
    EXPECT_EQ(look(20).fruitless, 20);
}

TEST_F(RecentChangesTest, CallsItQuietWhenNothingIsTriedAnyMore) {
    look(0);
    noCopyProcesses();
    EXPECT_TRUE(look(29).fruitless);
    EXPECT_FALSE(look(2).fruitless);
}

TEST_F(RecentChangesTest, ExpectsNothingOfADaemonThatIsDown) {
    look(0);
    snapshot.daemonState = DaemonState::dead;
    EXPECT_FALSE(look(5).fruitless);
}

TEST_F(RecentChangesTest, ForgetsWhatADaemonDidBeforeItWasStartedAgain) {
    look(0);
    ++snapshot.counts.lost;
    look(1);
    ASSERT_TRUE(snapshot.recent.lost);
    snapshot.counts = Counts{};
    const Recent& recent = look(1);
    EXPECT_FALSE(recent.lost);
    EXPECT_FALSE(recent.file);
    EXPECT_EQ(recent.watched, 2);
    ++snapshot.counts.lost;
    EXPECT_EQ(look(1).lost, 0);
}

TEST_F(RecentChangesTest, DoesNotHeedAClockThatIsSet) {
    look(0);
    ++snapshot.files;
    look(1);
    snapshot.time -= 1000;
    EXPECT_EQ(look(1).file, 1);
    snapshot.time += 100000;
    EXPECT_EQ(look(1).file, 2);
}

} // namespace

} // namespace control
