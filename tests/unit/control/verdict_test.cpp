// The verdict on a daemon, fault by fault, and which of several faults comes first.
#include "control/observe/verdict.h"
#include "example_snapshot.h"

#include <cstdlib>
#include <ctime>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using Level = Verdict::Level;
using testing::ElementsAre;
using testing::HasSubstr;

/// The headline, the reasons and the note in one line.
std::string sentence(const Verdict& verdict) {
    std::string text = headline(verdict.level);
    const char* separator = ": ";
    for (const Verdict::Reason& reason : verdict.reasons) {
        text += separator + reason.text;
        separator = "; ";
    }
    return verdict.note.empty() ? text : text + separator + verdict.note;
}

TEST(VerdictTest, HasNothingToSayOfADaemonThatKeepsUp) {
    EXPECT_EQ(sentence(verdict(exampleSnapshot())), "KEEPING UP");
}

TEST(VerdictTest, NeedsNoFilesToKeepUp) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.recent = Recent{};
    snapshot.rates = Rates{};
    snapshot.counts = Counts{};
    EXPECT_EQ(verdict(snapshot).level, Level::keepingUp);
}

struct Fault {
    const char* name;
    std::function<void(Snapshot&)> happen;
    const char* sentence;
};

class VerdictOf : public testing::TestWithParam<Fault> {};

TEST_P(VerdictOf, OneFault) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    Snapshot snapshot = exampleSnapshot();
    GetParam().happen(snapshot);
    EXPECT_EQ(sentence(verdict(snapshot)), GetParam().sentence);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, VerdictOf,
    testing::Values(
        Fault{"dead",
              [](Snapshot& s) {
                  s.daemonState = DaemonState::dead;
                  s.daemonText = "skarn is dead: its PID file names 812, which has ended.";
              },
              "DOWN: skarn is dead: its PID file names 812, which has ended"},
        Fault{"deadWithoutAWord",
              [](Snapshot& s) {
                  s.daemonState = DaemonState::dead;
                  s.daemonText.clear();
              },
              "DOWN: the daemon is dead"},
        Fault{"notRunning",
              [](Snapshot& s) {
                  s.daemonState = DaemonState::notRunning;
                  s.daemonText.clear();
              },
              "DOWN: no daemon runs"},
        Fault{"unknownDaemon",
              [](Snapshot& s) {
                  s.daemonState = DaemonState::unknown;
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
        Fault{"stalledRelay",
              [](Snapshot& s) {
                  s.relay = RelaySnapshot{7, "No space left on device.", {}};
              },
              "NOT KEEPING UP: the relay takes nothing out of the pipe: No space left on device"},
        Fault{"silentRelay", [](Snapshot& s) { s.relayIsSilent = true; },
              "KEEPING UP, BUT: the relay does not answer"},
        Fault{"failingSubscriber",
              [](Snapshot& s) {
                  s.relay = RelaySnapshot{7, "", {{"viewer", 1234, 9, "status 1"}}};
              },
              "KEEPING UP, BUT: the relay's subscriber viewer is 1,234 records behind: status 1"},
        Fault{"full", [](Snapshot& s) { s.detectors[1].freeBytes = 0; },
              "NOT KEEPING UP: the target of detector 2 is full: no space left on device"},
        Fault{"noInodes",
              [](Snapshot& s) {
                  s.detectors[1].freeInodes = 0;
                  s.detectors[1].totalInodes = 1000;
              },
              "NOT KEEPING UP: the target of detector 2 has no free inodes: no further file can "
              "be made"},
        Fault{"nearlyFull", [](Snapshot& s) { s.detectors[1].freeBytes = 4ULL << 30; },
              "KEEPING UP, BUT: the target of detector 2 is nearly full: 4.0 GiB"},
        Fault{"fewInodes",
              [](Snapshot& s) {
                  s.detectors[1].freeInodes = 1900;
                  s.detectors[1].totalInodes = 100000;
              },
              "KEEPING UP, BUT: the target of detector 2 has few free inodes: 1,900"},
        Fault{"silentTarget", [](Snapshot& s) { s.detectors[1].targetIsSilent = true; },
              "NOT KEEPING UP: the file system of detector 2's target /srv/images/2/. does not "
              "answer"},
        Fault{"fullSoon",
              [](Snapshot& s) {
                  s.detectors[1].freeBytes = 40ULL << 30;
                  s.detectors[1].secondsUntilFull = 12 * 60 + 5;
              },
              "KEEPING UP, BUT: the target of detector 2 is full in 12 min"},
        Fault{"fullSoonWithMuchRoom", [](Snapshot& s) { s.detectors[1].secondsUntilFull = 60; },
              "KEEPING UP"},
        Fault{"fullLater",
              [](Snapshot& s) {
                  s.detectors[1].freeBytes = 40ULL << 30;
                  s.detectors[1].secondsUntilFull = 5 * 3600;
              },
              "KEEPING UP"},
        Fault{"refused",
              [](Snapshot& s) {
                  s.detectors[1].state = DetectorSnapshot::State::unreachable;
                  s.detectors[1].complaint = "Connection refused";
                  s.detectors[1].failingSince = s.time - 600;
              },
              "NOT KEEPING UP: detector 2 (127.0.0.2) can't be listed since 11:50: Connection "
              "refused"},
        Fault{"hanging",
              [](Snapshot& s) {
                  s.detectors[1].state = DetectorSnapshot::State::hanging;
                  s.detectors[1].noAnswer = 12;
              },
              "NOT KEEPING UP: the listing of detector 2 (127.0.0.2) has had no answer for 12 s"},
        Fault{"hangingTarget",
              [](Snapshot& s) {
                  s.detectors[1].state = DetectorSnapshot::State::hanging;
                  s.detectors[1].preparing = true;
                  s.detectors[1].noAnswer = 12;
              },
              "NOT KEEPING UP: the target of detector 2 (127.0.0.2), /srv/images/2/., has not "
              "answered for 12 s"},
        Fault{"partialListing",
              [](Snapshot& s) { s.detectors[1].complaint = "opendir failed: Permission denied"; },
              "KEEPING UP, BUT: the listing of detector 2 (127.0.0.2) complains: opendir failed: "
              "Permission denied"},
        Fault{"listingOfNobody", [](Snapshot& s) { s.listingComplaint = "@ERROR: Unknown module"; },
              "NOT KEEPING UP: a listing fails, it is not known of which detector: @ERROR: Unknown "
              "module"},
        Fault{"consumerDoesNotRead",
              [](Snapshot& s) {
                  s.waits.known = true;
                  s.waits.writing = 40;
              },
              "NOT KEEPING UP: vantrel (411) holds the pipe open and has read nothing for 40 s: "
              "copying stands still"},
        Fault{"consumerIsSlow", [](Snapshot& s) { s.waits.writing = 1; }, "KEEPING UP"},
        Fault{"removedPipe", [](Snapshot& s) { s.waits.opening = 3; },
              "NOT KEEPING UP: a copy waits for a reader of a pipe that was removed: restart the "
              "daemon"},
        Fault{"twoDaemons", [](Snapshot& s) { s.otherDaemons = {900}; },
              "NOT KEEPING UP: another daemon runs beside it (process 900), so files are announced "
              "twice: end one of them"},
        Fault{"seemsToRun",
              [](Snapshot& s) {
                  s.daemonState = DaemonState::seemsToRun;
                  s.daemonText = "skarn seems to run: process 812; only root can be sure";
              },
              "KEEPING UP, BUT: skarn seems to run: process 812; only root can be sure"},
        Fault{"diedJustNow",
              [](Snapshot& s) {
                  s.deaths.lastDay = 2;
                  s.deaths.last = s.time - 60;
                  s.deaths.how = "SIGPIPE";
              },
              "KEEPING UP, BUT: the daemon died 2 times in the last 24 h, the last time at 11:59 "
              "by SIGPIPE"},
        Fault{"diedThisMorning",
              [](Snapshot& s) {
                  s.deaths.lastDay = 1;
                  s.deaths.last = s.time - 4 * 3600;
              },
              "KEEPING UP: the daemon died 1 time in the last 24 h, the last time at 08:00"},
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
              "KEEPING UP, BUT: copy processes run, but none has confirmed a file for 1 min"},
        Fault{"handoffFails",
              [](Snapshot& s) {
                  s.counts.failedHandoffs = 1200;
                  s.recent.failedHandoff = 2;
              },
              "NOT KEEPING UP: 1,200 files were copied but could not be announced, the last one "
              "2 s ago (skarnctl unannounced names them)"},
        Fault{"handoffFailedOnce",
              [](Snapshot& s) {
                  s.counts.failedHandoffs = 1;
                  s.recent.failedHandoff = 400;
              },
              "KEEPING UP"},
        Fault{"withoutPipe",
              [](Snapshot& s) {
                  s.counts.withoutPipe = 2;
                  s.recent.withoutPipe = 30;
              },
              "KEEPING UP, BUT: 2 copy processes found no pipe and announced nothing, the last one "
              "30 s ago"},
        Fault{"pipeWasMissingOnce", [](Snapshot& s) { s.counts.withoutPipe = 2; }, "KEEPING UP"},
        Fault{"losing",
              [](Snapshot& s) {
                  s.counts.lost = 5;
                  s.missing = 3;
                  s.recent.lost = 12;
              },
              "KEEPING UP, BUT: 3 files were sent and not confirmed, the last one 12 s ago"},
        Fault{"lostAndFound",
              [](Snapshot& s) {
                  s.counts.lost = 3;
                  s.recent.lost = 12;
              },
              "KEEPING UP"},
        Fault{"failedStart",
              [](Snapshot& s) {
                  s.counts.failedStarts = 1;
                  s.recent.failedStart = 1;
              },
              "KEEPING UP, BUT: copy processes or listings could not be started, the last one 1 s "
              "ago"},
        Fault{"failedSometime",
              [](Snapshot& s) {
                  s.counts.failedStarts = s.counts.failedListings = s.counts.failedRemovals = 1;
                  s.counts.longRecords = s.counts.lost = 1;
              },
              "KEEPING UP"},
        Fault{"complaint",
              [](Snapshot& s) {
                  s.counts.complaints = 1;
                  s.lastComplaint = "rsync error: timeout";
                  s.recent.complaint = 10;
              },
              "KEEPING UP, BUT: copy processes complain: rsync error: timeout"},
        Fault{"oldComplaint",
              [](Snapshot& s) {
                  s.counts.complaints = 1;
                  s.lastComplaint = "rsync error: timeout";
                  s.recent.complaint = 301;
              },
              "KEEPING UP"},
        Fault{"noLog",
              [](Snapshot& s) {
                  s.log.coverage = LogCoverage::none;
                  s.log.problem = "The log /var/log/skarn.log can't be read: Permission denied.";
              },
              "KEEPING UP, BUT: The log /var/log/skarn.log can't be read: Permission denied"},
        Fault{"neitherLogNorFigures",
              [](Snapshot& s) {
                  s.hasFigures = false;
                  s.log.coverage = LogCoverage::none;
              },
              "CAN'T TELL: there is no log to read, so what the daemon did can't be counted"},
        Fault{"rotatedAway", [](Snapshot& s) { s.log.coverage = LogCoverage::sinceWatch; },
              "KEEPING UP"},
        Fault{"gap", [](Snapshot& s) { s.log.coverage = LogCoverage::withGap; }, "KEEPING UP"},
        Fault{"noConfiguration",
              [](Snapshot& s) { s.configProblem = "the configuration can't be read"; },
              "CAN'T TELL: the configuration can't be read"},
        Fault{"changedConfiguration", [](Snapshot& s) { s.configChanged = true; },
              "KEEPING UP, BUT: the configuration was changed after the daemon read it: restart "
              "it, or what is shown may be wrong"}),
    [](const auto& instance) { return instance.param.name; });

std::vector<std::string> reasons(const Snapshot& snapshot) {
    std::vector<std::string> texts;
    for (const Verdict::Reason& reason : verdict(snapshot).reasons) {
        texts.push_back(reason.text);
    }
    return texts;
}

TEST(VerdictTest, PutsTheGravestReasonFirst) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.log.coverage = LogCoverage::none;
    snapshot.missing = 3;
    snapshot.recent.lost = 1;
    snapshot.counts.failedHandoffs = 2;
    snapshot.recent.failedHandoff = 1;
    snapshot.detectors[0].freeBytes = 1;
    snapshot.pipe.state = PipeSnapshot::State::noReader;
    EXPECT_EQ(verdict(snapshot).level, Level::notKeepingUp);
    EXPECT_THAT(reasons(snapshot),
                ElementsAre(HasSubstr("nobody reads"), HasSubstr("is full"),
                            HasSubstr("could not be announced"),
                            HasSubstr("3 files were sent and not confirmed"), HasSubstr("no log")));
}

TEST(VerdictTest, NamesAFileSystemThatSeveralTargetsShareOnce) {
    Snapshot snapshot = exampleSnapshot();
    for (DetectorSnapshot& detector : snapshot.detectors) {
        detector.freeBytes = 40ULL << 30;
    }
    snapshot.detectors[0].secondsUntilFull = 720;
    snapshot.detectors[1].secondsUntilFull = 700;
    EXPECT_THAT(reasons(snapshot),
                ElementsAre("the target of detector 1 (and of 1 more) is full in 11 min"));
}

TEST(VerdictTest, BlamesNothingElseForADaemonThatIsDown) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.daemonState = DaemonState::dead;
    snapshot.pipe.state = PipeSnapshot::State::noReader;
    snapshot.recent.fruitless = 1000;
    snapshot.log.coverage = LogCoverage::none;
    EXPECT_THAT(reasons(snapshot), testing::SizeIs(1));
}

} // namespace

} // namespace control
