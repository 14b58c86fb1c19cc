// The verdict on a daemon, fault by fault, and which of several faults comes first.
#include "control/observe/verdict.h"
#include "example_snapshot.h"

#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using Level = Verdict::Level;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(VerdictTest, HasNothingToSayOfADaemonThatKeepsUp) {
    EXPECT_EQ(sentence(verdict(exampleSnapshot())), "KEEPING UP");
}

TEST(VerdictTest, NeedsNoFilesToKeepUp) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.recent = Recent{};
    snapshot.rates = Rates{};
    snapshot.total = Counts{};
    EXPECT_EQ(verdict(snapshot).level, Level::keepingUp);
}

struct Fault {
    const char* name;
    std::function<void(Snapshot&)> happen;
    const char* sentence;
};

class VerdictOf : public testing::TestWithParam<Fault> {};

TEST_P(VerdictOf, OneFault) {
    Snapshot snapshot = exampleSnapshot();
    GetParam().happen(snapshot);
    EXPECT_EQ(sentence(verdict(snapshot)), GetParam().sentence);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, VerdictOf,
    testing::Values(
        Fault{"dead",
              [](Snapshot& s) {
                  s.daemonState = Snapshot::DaemonState::dead;
                  s.daemonText = "skarn is dead: its PID file names 812, which has ended.";
              },
              "DOWN: skarn is dead: its PID file names 812, which has ended"},
        Fault{"deadWithoutAWord",
              [](Snapshot& s) {
                  s.daemonState = Snapshot::DaemonState::dead;
                  s.daemonText.clear();
              },
              "DOWN: the daemon is dead"},
        Fault{"notRunning",
              [](Snapshot& s) {
                  s.daemonState = Snapshot::DaemonState::notRunning;
                  s.daemonText.clear();
              },
              "DOWN: no daemon runs"},
        Fault{"unknownDaemon",
              [](Snapshot& s) {
                  s.daemonState = Snapshot::DaemonState::unknown;
                  s.daemonText = "the PID file can't be read";
              },
              "CAN'T TELL: the PID file can't be read"},
        Fault{"noReader", [](Snapshot& s) { s.pipe.state = PipeSnapshot::State::noReader; },
              "NOT KEEPING UP: nobody reads the pipe /var/run/vantrel_orbelin_files, so copying "
              "stands still until somebody does"},
        Fault{"noPipe", [](Snapshot& s) { s.pipe.state = PipeSnapshot::State::absent; },
              "NOT KEEPING UP: there is no pipe /var/run/vantrel_orbelin_files, so files are "
              "copied and announced to nobody"},
        Fault{"notAPipe", [](Snapshot& s) { s.pipe.state = PipeSnapshot::State::notAPipe; },
              "NOT KEEPING UP: what stands at /var/run/vantrel_orbelin_files is no pipe, so files "
              "are announced to nobody"},
        Fault{"unknownPipe", [](Snapshot& s) { s.pipe.state = PipeSnapshot::State::unknown; },
              "KEEPING UP, BUT: whether somebody reads the pipe can't be seen"},
        Fault{"full", [](Snapshot& s) { s.detectors[1].freeBytes = 0; },
              "NOT KEEPING UP: the target of detector 2 is full"},
        Fault{"fullSoon",
              [](Snapshot& s) {
                  s.detectors[1].freeBytes = 1ULL << 40;
                  s.detectors[1].secondsUntilFull = 12 * 60 + 5;
              },
              "NOT KEEPING UP: the target of detector 2 is full in 12 min"},
        Fault{"fullLater",
              [](Snapshot& s) {
                  s.detectors[1].freeBytes = 1ULL << 40;
                  s.detectors[1].secondsUntilFull = 5 * 3600;
              },
              "KEEPING UP, BUT: the target of detector 2 is full in 5 h 0 min"},
        Fault{"fullSomeDay",
              [](Snapshot& s) {
                  s.detectors[1].freeBytes = 1ULL << 40;
                  s.detectors[1].secondsUntilFull = 3e6;
              },
              "KEEPING UP"},
        Fault{"fruitless",
              [](Snapshot& s) {
                  s.recent.fruitless = 15;
                  s.recent.fruitlessReports = 4;
              },
              "NOT KEEPING UP: 4 copy processes ended in the last 15 s, and no file was confirmed"},
        Fault{"fruitlessOnce",
              [](Snapshot& s) {
                  s.recent.fruitless = 15;
                  s.recent.fruitlessReports = 1;
              },
              "KEEPING UP"},
        Fault{"slow", [](Snapshot& s) { s.recent.fruitless = 90; },
              "KEEPING UP, BUT: copy processes run, but none has confirmed a file for 1 min "
              "(files count when their copy process has ended)"},
        Fault{"handoffFails",
              [](Snapshot& s) {
                  s.total.failedHandoffs = 1200;
                  s.recent.failedHandoff = 2;
              },
              "NOT KEEPING UP: 1,200 files were copied but could not be announced, the last one "
              "2 s ago"},
        Fault{"handoffFailedOnce",
              [](Snapshot& s) {
                  s.total.failedHandoffs = 1;
                  s.recent.failedHandoff = 400;
              },
              "KEEPING UP, BUT: 1 file was copied but could not be announced, the last one 6 min "
              "ago"},
        Fault{"withoutPipe", [](Snapshot& s) { s.total.withoutPipe = 2; },
              "KEEPING UP, BUT: 2 copy processes found no pipe and announced nothing"},
        Fault{"losing",
              [](Snapshot& s) {
                  s.total.lost = 3;
                  s.recent.lost = 12;
              },
              "NOT KEEPING UP: 3 files were reported lost, the last one 12 s ago"},
        Fault{"lostSometime", [](Snapshot& s) { s.total.lost = 1; },
              "KEEPING UP, BUT: 1 file was reported lost"},
        Fault{"failedStart", [](Snapshot& s) { s.total.failedStarts = 1; },
              "KEEPING UP, BUT: 1 copy process could not be started"},
        Fault{"failedListing", [](Snapshot& s) { s.total.failedListings = 2; },
              "KEEPING UP, BUT: 2 listings could not be started"},
        Fault{"failedRemoval", [](Snapshot& s) { s.total.failedRemovals = 1; },
              "KEEPING UP, BUT: 1 file list could not be removed"},
        Fault{"longRecord", [](Snapshot& s) { s.total.longRecords = 1; },
              "KEEPING UP, BUT: 1 announcement was longer than the pipe passes in one piece"},
        Fault{"complaint",
              [](Snapshot& s) {
                  s.total.complaints = 1;
                  s.lastComplaint = "rsync error: timeout";
                  s.recent.complaint = 10;
              },
              "KEEPING UP, BUT: copy processes complain: rsync error: timeout"},
        Fault{"oldComplaint",
              [](Snapshot& s) {
                  s.total.complaints = 1;
                  s.lastComplaint = "rsync error: timeout";
                  s.recent.complaint = 301;
              },
              "KEEPING UP"},
        Fault{"noLog",
              [](Snapshot& s) {
                  s.log.coverage = LogCoverage::none;
                  s.log.problem = "The log /var/log/skarn.log can't be read: Permission denied.";
              },
              "CAN'T TELL: The log /var/log/skarn.log can't be read: Permission denied"},
        Fault{"logIsNull", [](Snapshot& s) { s.log.coverage = LogCoverage::none; },
              "CAN'T TELL: there is no log to read, so nothing that the daemon did can be counted"},
        Fault{"rotatedAway", [](Snapshot& s) { s.log.coverage = LogCoverage::sinceOldest; },
              "KEEPING UP, BUT: the log's beginning was rotated away, so the counts are too low"},
        Fault{"gap", [](Snapshot& s) { s.log.coverage = LogCoverage::withGap; },
              "KEEPING UP, BUT: the log was rotated faster than it was read, so the counts are too "
              "low"},
        Fault{"noConfiguration",
              [](Snapshot& s) { s.configProblem = "the configuration can't be read"; },
              "CAN'T TELL: the configuration can't be read"},
        Fault{"changedConfiguration", [](Snapshot& s) { s.configChanged = true; },
              "KEEPING UP, BUT: the configuration was changed after the daemon read it: restart "
              "it, or what is shown may be wrong"}),
    [](const auto& instance) { return instance.param.name; });

TEST(VerdictTest, PutsTheGravestReasonFirst) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.log.coverage = LogCoverage::none;
    snapshot.total.lost = 3;
    snapshot.total.failedHandoffs = 2;
    snapshot.recent.failedHandoff = 1;
    snapshot.detectors[0].freeBytes = 1;
    snapshot.pipe.state = PipeSnapshot::State::noReader;
    const Verdict found = verdict(snapshot);
    EXPECT_EQ(found.level, Level::notKeepingUp);
    EXPECT_THAT(found.reasons, ElementsAre(HasSubstr("nobody reads"), HasSubstr("is full"),
                                           HasSubstr("could not be announced"), HasSubstr("no log"),
                                           HasSubstr("3 files were reported lost")));
}

TEST(VerdictTest, NamesAFileSystemThatSeveralTargetsShareOnce) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.detectors[0].secondsUntilFull = 720;
    snapshot.detectors[1].secondsUntilFull = 700;
    EXPECT_THAT(verdict(snapshot).reasons,
                ElementsAre("the target of detector 1 (and of 1 more) is full in 11 min"));
}

TEST(VerdictTest, BlamesNoPipeForADaemonThatIsDown) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.daemonState = Snapshot::DaemonState::dead;
    snapshot.pipe.state = PipeSnapshot::State::noReader;
    snapshot.recent.fruitless = 1000;
    snapshot.log.coverage = LogCoverage::none;
    EXPECT_THAT(verdict(snapshot).reasons, testing::SizeIs(1));
}

TEST(VerdictTest, PutsAllReasonsIntoOneLine) {
    EXPECT_EQ(sentence({Level::notKeepingUp, {"one", "two"}}), "NOT KEEPING UP: one; two");
}

} // namespace

} // namespace control
