// Rates from samples that come now and then.
#include "control/observe/figure_history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using testing::DoubleEq;
using testing::DoubleNear;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

TEST(History, HasNoSlopeBeforeItHasSeenEnough) {
    History history(300);
    EXPECT_EQ(history.slope(10, 1), std::nullopt);
    history.add(100, 7);
    EXPECT_EQ(history.slope(10, 1), std::nullopt);
    history.add(100.5, 9);
    EXPECT_EQ(history.slope(10, 1), std::nullopt);
    history.add(101, 9);
    EXPECT_THAT(history.slope(10, 1), Optional(DoubleEq(2)));
}

TEST(History, LooksAtTheLastSecondsOnly) {
    History history(300);
    for (int second = 0; second <= 100; ++second) {
        history.add(second, second <= 90 ? 0 : (second - 90) * 5);
    }
    EXPECT_THAT(history.slope(10, 1), Optional(DoubleEq(5)));
    EXPECT_THAT(history.slope(20, 1), Optional(DoubleEq(2.5)));
    EXPECT_THAT(history.slope(100, 1), Optional(DoubleEq(0.5)));
    EXPECT_THAT(history.slope(1000, 1), Optional(DoubleEq(0.5))) << "no more is known";
}

TEST(History, ForgetsWhatIsTooOld) {
    History history(10);
    history.add(0, 1000);
    for (int second = 1; second <= 100; ++second) {
        history.add(second, 0);
    }
    EXPECT_THAT(history.slope(1000, 1), Optional(DoubleEq(0)));
}

TEST(History, ReachesBackAsFarAsItIsToWhenSamplesAreRare) {
    History history(10);
    history.add(0, 0);
    history.add(30, 30);
    history.add(60, 120);
    EXPECT_THAT(history.slope(10, 1), Optional(DoubleEq(3)));
}

TEST(History, GivesTheChangesOfWholeSeconds) {
    History history(300);
    history.add(9.5, 0);
    history.add(10.5, 10);
    history.add(11.5, 10);
    history.add(13.5, 20);
    // From 10 to 11 half of the first step and none of the second, and so on.
    EXPECT_THAT(history.changes(60),
                ElementsAre(DoubleNear(5, 1e-9), DoubleNear(2.5, 1e-9), DoubleNear(5, 1e-9)));
    EXPECT_THAT(history.changes(2), ElementsAre(DoubleNear(2.5, 1e-9), DoubleNear(5, 1e-9)));
}

TEST(History, HasNoChangesBeforeAWholeSecondWasSeen) {
    History history(300);
    EXPECT_THAT(history.changes(60), IsEmpty());
    history.add(1.2, 0);
    EXPECT_THAT(history.changes(60), IsEmpty());
    history.add(1.9, 5);
    EXPECT_THAT(history.changes(60), IsEmpty());
    history.add(2.9, 5);
    EXPECT_THAT(history.changes(60), IsEmpty());
}

TEST(History, GivesNoMoreChangesThanAskedFor) {
    History history(300);
    for (int second = 0; second <= 500; ++second) {
        history.add(second, second);
    }
    EXPECT_EQ(history.changes(60).size(), 60U);
}

TEST(History, SurvivesAClockThatStandsStill) {
    History history(300);
    history.add(5, 1);
    history.add(5, 3);
    EXPECT_EQ(history.slope(10, 0), std::nullopt);
    history.add(6, 4);
    EXPECT_THAT(history.slope(10, 1), Optional(DoubleEq(1)));
}

TEST(GrowingTotal, AddsUpTheStepsOverAllBeginnings) {
    GrowingTotal total;
    EXPECT_EQ(total.take(1000, 1), 0) << "what was there before counts as nothing";
    EXPECT_EQ(total.take(1010, 1), 10);
    EXPECT_EQ(total.take(4, 2), 14) << "begun anew";
    EXPECT_EQ(total.take(5, 2), 15);
    EXPECT_EQ(total.take(9, 3), 24) << "begun anew, though it is higher";
    EXPECT_EQ(total.take(1, 3), 25) << "it can't have shrunk";
}

TEST(SecondsUntilGone, NeedsAFallToSay) {
    EXPECT_THAT(secondsUntilGone(1000, -10), Optional(DoubleEq(100)));
    EXPECT_EQ(secondsUntilGone(1000, 0), std::nullopt);
    EXPECT_EQ(secondsUntilGone(1000, 10), std::nullopt);
    EXPECT_EQ(secondsUntilGone(1000, std::nullopt), std::nullopt);
    EXPECT_THAT(secondsUntilGone(0, -10), Optional(DoubleEq(0)));
}

} // namespace

} // namespace control
