// Which names of earlier runs are announced, left to a later run, or dropped.
#include "confirming_rsync/open_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace confirming {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Strings = std::vector<std::string>;

const ProcessIdentity ours{"boot", 100, 5};
const ProcessIdentity dead{"boot", 90, 3};
const ProcessIdentity ofAnotherBoot{"earlier", 100, 5};

/// A run of this daemon's or another's that meant to copy these names.
ReadJournal run(const ProcessIdentity& daemon, std::uint64_t begun, Strings intended,
                std::set<std::string, std::less<>> confirmed = {}) {
    ReadJournal journal;
    journal.head.daemon = daemon;
    journal.head.begun = begun;
    journal.body.intended = std::move(intended);
    journal.body.confirmed = std::move(confirmed);
    return journal;
}

Strings namesOf(const std::vector<JournalEntry>& entries) {
    Strings names;
    for (const JournalEntry& entry : entries) {
        names.push_back(entry.name);
    }
    return names;
}

TEST(OpenNames, AreTheUnconfirmedOnesOfARunThatBrokeOff) {
    const auto open = openNames({run(ours, 10, {"a", "b", "c"}, {"b"})}, {}, ours);
    EXPECT_THAT(namesOf(open), ElementsAre("a", "c"));
    EXPECT_EQ(open[0].since, 10U);
    EXPECT_EQ(open[0].rounds, 0U);
}

TEST(OpenNames, AreNoneOfARunThatWasDone) {
    ReadJournal done = run(ours, 10, {"a", "b"}, {"b"});
    done.body.ownDone = true;
    EXPECT_THAT(openNames({done}, {}, ours), IsEmpty());
}

TEST(OpenNames, AreAllOfADeadDaemons) {
    ReadJournal done = run(dead, 10, {"a", "b"}, {"b", "inside/c"});
    done.body.ownDone = true;
    EXPECT_THAT(namesOf(openNames({done}, {}, ours)), ElementsAre("a", "b", "inside/c"));
}

TEST(OpenNames, CountOnceHoweverManyRunsNameThem) {
    const auto open =
        openNames({run(ours, 10, {"a"}), run(ours, 20, {"b", "a"}), run(dead, 5, {"b"})}, {}, ours);
    EXPECT_THAT(namesOf(open), ElementsAre("a", "b"));
    EXPECT_EQ(open[0].since, 20U);
    EXPECT_EQ(open[1].since, 20U);
}

TEST(OpenNames, AreCoveredByALaterConfirmation) {
    EXPECT_THAT(openNames({run(ours, 10, {"a"}), run(ours, 20, {"a"}, {"a"})}, {}, ours),
                IsEmpty());
    EXPECT_THAT(openNames({run(ours, 10, {"a"})}, {run(ours, 20, {"a"}, {"a"})}, ours), IsEmpty());
}

TEST(OpenNames, AreNotCoveredByAnEarlierConfirmation) {
    // The detector has written a second file of that name in between.
    ReadJournal earlier = run(ours, 10, {"a"}, {"a"});
    earlier.body.ownDone = true;
    EXPECT_THAT(namesOf(openNames({earlier, run(ours, 20, {"a"})}, {}, ours)), ElementsAre("a"));
}

TEST(OpenNames, AreNotCoveredByADeadDaemonsConfirmation) {
    EXPECT_THAT(namesOf(openNames({run(ours, 10, {"a"}), run(dead, 20, {}, {"a"})}, {}, ours)),
                ElementsAre("a"));
}

TEST(OpenNames, OfAnotherBootAreCoveredByAnyConfirmationOfThisOne) {
    EXPECT_THAT(namesOf(openNames({run(ofAnotherBoot, 1000, {"a", "b"})},
                                  {run(ours, 20, {"a"}, {"a"})}, ours)),
                ElementsAre("b"));
}

TEST(OpenNames, AreInheritedThroughARunThatWasDone) {
    ReadJournal heir = run(ours, 30, {"x"}, {"r"});
    heir.body.ownDone = true;
    heir.body.inherited = {{"a", 10, 1}, {"b", 10, 1}, {"r", 10, 0}};
    // "b" was confirmed by a run that began before the heir, but after the name was first meant.
    const auto open = openNames({heir}, {run(ours, 20, {"b"}, {"b"})}, ours);
    EXPECT_THAT(namesOf(open), ElementsAre("a"));
    EXPECT_EQ(open[0].since, 10U);
    EXPECT_EQ(open[0].rounds, 1U);
}

TEST(Decision, AnnouncesWhatIsGoneAndInNobodysCare) {
    const auto decision = decide({{"a", 10, 0}, {"b", 10, 0}}, {"a", "b"}, {}, {"other"}, ours);
    EXPECT_THAT(namesOf(decision.announced), ElementsAre("a", "b"));
    EXPECT_THAT(decision.inherited, IsEmpty());
}

TEST(Decision, LeavesToALaterRunWhatOthersTakeCareOf) {
    const auto decision = decide({{"a", 10, 0}, {"b", 10, 1}, {"c", 10, 0}}, {"a", "b", "c"},
                                 {run(ours, 20, {"a"})}, {"b"}, ours);
    EXPECT_THAT(namesOf(decision.announced), ElementsAre("c"));
    EXPECT_THAT(namesOf(decision.inherited), ElementsAre("a", "b"));
    EXPECT_EQ(decision.inherited[0].rounds, 1U);
    EXPECT_EQ(decision.inherited[0].since, 10U);
    EXPECT_EQ(decision.inherited[1].rounds, 2U);
}

TEST(Decision, LeavesToALaterRunWhatIsStillAtTheSource) {
    const auto decision = decide({{"a", 10, 0}}, {}, {}, {}, ours);
    EXPECT_THAT(decision.announced, IsEmpty());
    EXPECT_THAT(namesOf(decision.inherited), ElementsAre("a"));
}

TEST(Decision, IsNotPutOffForEver) {
    std::vector<JournalEntry> open{{"a", 10, 0}};
    int rounds = 0;
    while (!open.empty() && rounds < 100) {
        open = decide(open, {}, {}, {}, ours).inherited;
        ++rounds;
    }
    EXPECT_EQ(rounds, 3);
}

TEST(Decision, DropsWhatWasConfirmedMeanwhile) {
    const auto decision = decide({{"a", 10, 0}}, {"a"}, {run(ours, 20, {"a"}, {"a"})}, {}, ours);
    EXPECT_THAT(decision.announced, IsEmpty());
    EXPECT_THAT(decision.inherited, IsEmpty());
}

} // namespace
} // namespace confirming
