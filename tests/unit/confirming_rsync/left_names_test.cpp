// Which names runs that are over leave open, and how long they stay that.
#include "confirming_rsync/left_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace confirming {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Strings = std::vector<std::string>;

/// A run that could have removed these names, and whose confirmations were handed off.
ReadJournal run(Strings intended, std::set<std::string, std::less<>> confirmed = {}) {
    ReadJournal journal;
    journal.body.intended = std::move(intended);
    journal.body.confirmed = std::move(confirmed);
    journal.isHandedOff = true;
    return journal;
}

ReadJournal done(ReadJournal journal) {
    journal.body.done = true;
    return journal;
}

ReadJournal ofADeadDaemon(ReadJournal journal) {
    journal.isHandedOff = false;
    return journal;
}

/// "NAME", with "+" behind it if it is known to be gone, and the number of its listings if any.
Strings shown(const std::vector<OpenName>& names) {
    Strings texts;
    for (const OpenName& open : names) {
        texts.push_back(open.name + (open.isGone ? "+" : "") +
                        (open.listings > 0 ? std::to_string(open.listings) : ""));
    }
    return texts;
}

TEST(OpenNames, AreTheUnconfirmedOnesOfARunThatBrokeOff) {
    EXPECT_THAT(shown(openNames({}, {run({"a", "b", "c"}, {"b"})})), ElementsAre("a", "c"));
}

TEST(OpenNames, AreNoneOfARunThatWasDone) {
    EXPECT_THAT(openNames({}, {done(run({"a", "b"}, {"b"}))}), IsEmpty());
}

TEST(OpenNames, AreAllOfADeadDaemons) {
    EXPECT_THAT(shown(openNames({}, {ofADeadDaemon(done(run({"a", "b"}, {"b", "z"})))})),
                ElementsAre("a", "b", "z"));
    EXPECT_THAT(shown(openNames({}, {ofADeadDaemon(run({"a"}))})), ElementsAre("a"));
}

TEST(OpenNames, CountOnceHoweverManyRunsNameThem) {
    EXPECT_THAT(shown(openNames({{"a", false, 2}}, {run({"b", "a"}), ofADeadDaemon(run({"b"}))})),
                ElementsAre("a", "b"));
}

TEST(OpenNames, AreGoneIfAnyoneKnowsIt) {
    EXPECT_THAT(shown(openNames({{"a", true, 0}, {"b", false, 1}}, {run({"a"})})),
                ElementsAre("a+", "b1"));
    ReadJournal taker = run({"x"});
    taker.body.taken = {"a", "x"};
    EXPECT_THAT(shown(openNames({{"a", false, 1}}, {taker})), ElementsAre("a+", "x+"));
}

TEST(OpenNames, AreThoseThatARunTookAndDidNotAnnounce) {
    ReadJournal taker = done(run({"x"}, {"b", "x"}));
    taker.body.taken = {"a", "b"};
    EXPECT_THAT(shown(openNames({}, {taker})), ElementsAre("a+"));
    EXPECT_THAT(shown(openNames({}, {ofADeadDaemon(taker)})), ElementsAre("a+", "b+", "x"));
}

TEST(OpenNames, AreCoveredByALaterConfirmation) {
    EXPECT_THAT(openNames({}, {run({"a"}), done(run({"a"}, {"a"}))}), IsEmpty());
    EXPECT_THAT(openNames({{"a", true, 0}}, {run({"a"}, {"a"})}), IsEmpty());
}

TEST(OpenNames, AreNotCoveredByAnEarlierConfirmation) {
    // The detector has written a second file of that name in between.
    EXPECT_THAT(shown(openNames({}, {done(run({"a"}, {"a"})), run({"a"})})), ElementsAre("a"));
}

TEST(OpenNames, AreNotCoveredByADeadDaemonsConfirmation) {
    EXPECT_THAT(shown(openNames({}, {run({"a"}), ofADeadDaemon(run({}, {"a"}))})),
                ElementsAre("a"));
}

TEST(Settled, IsANameThatTheListingDoesNotShow) {
    const auto gone = settled({"a", false, 1}, false);
    ASSERT_TRUE(gone);
    EXPECT_TRUE(gone->isGone);
    EXPECT_EQ(gone->name, "a");
}

TEST(Settled, IsNoGoneNameByAFileThatCameLater) {
    std::optional<OpenName> open{{"a", true, 0}};
    for (int listing = 0; listing < 10; ++listing) {
        open = settled(*open, true);
        ASSERT_TRUE(open);
        EXPECT_TRUE(open->isGone);
    }
}

TEST(Settled, IsANameThatThreeListingsHaveShown) {
    std::optional<OpenName> open{{"a", false, 0}};
    int listings = 0;
    while (open && listings < 100) {
        EXPECT_FALSE(open->isGone);
        open = settled(*open, true);
        ++listings;
    }
    EXPECT_EQ(listings, 3);
}

} // namespace
} // namespace confirming
