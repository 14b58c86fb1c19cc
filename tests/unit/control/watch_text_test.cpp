// The plain report.
#include "control/observe/watch_text.h"
#include "tests/unit/control/example_snapshot.h"

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST(WatchText, BeginsWithWhatMattersMost) {
    EXPECT_THAT(watchText(exampleSnapshot(), false), StartsWith("KEEPING UP\nDaemon: "));
}

TEST(WatchText, NamesEachDetector) {
    const std::string text = watchText(exampleSnapshot(), false);
    EXPECT_THAT(text, HasSubstr("\nDetector 1: copying with 3 processes\n"));
    EXPECT_THAT(text, HasSubstr("\nDetector 2: copying with 3 processes\n"));
    EXPECT_THAT(text, HasSubstr("\n  12,345 files copied in 17 cycles\n"));
    EXPECT_THAT(text, HasSubstr("\n  300 GiB of 400 GiB free\n"));
    EXPECT_THAT(text, Not(HasSubstr("at least")));
}

TEST(WatchText, SaysWhatItCannotKnow) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.unattributed.files = 1234;
    snapshot.configChanged = true;
    snapshot.log.coverage = LogCoverage::withGap;
    snapshot.pipe.state = PipeSnapshot::State::unknown;
    snapshot.detectors[1].shareUrl.clear();
    snapshot.detectors[1].freeBytes.reset();
    const std::string text = watchText(snapshot, false);
    EXPECT_THAT(text, HasSubstr("files of which the log does not tell the detector: 1,234\n"));
    EXPECT_THAT(text, HasSubstr("  at least 12,345 files copied"));
    EXPECT_THAT(text, HasSubstr("  changed since the daemon has read it"));
    EXPECT_THAT(text, HasSubstr("lines were missed"));
    EXPECT_THAT(text, HasSubstr("can't be seen without more rights"));
    EXPECT_THAT(text, HasSubstr("the configuration does not name it"));
    EXPECT_THAT(text, HasSubstr("  free space unknown\n"));
}

TEST(WatchText, NamesOnlyTheTroublesThatThereWere) {
    Snapshot snapshot = exampleSnapshot();
    EXPECT_THAT(watchText(snapshot, false), Not(HasSubstr("lost")));
    snapshot.total.lost = 1;
    snapshot.total.withoutPipe = 2;
    const std::string text = watchText(snapshot, false);
    EXPECT_THAT(text, HasSubstr("\n  1 file reported lost\n"));
    EXPECT_THAT(text, HasSubstr("\n  2 copy processes without a pipe to the consumer\n"));
}

TEST(WatchText, LetsNoTextSteerTheTerminal) {
    const std::string evil = "a\x1b[2J\r\n\x07\x9b\xff";
    Snapshot snapshot = exampleSnapshot();
    snapshot.daemonText = snapshot.configFile = snapshot.configProblem = evil;
    snapshot.startOptions = {evil};
    snapshot.lastFile = snapshot.lastComplaint = evil;
    snapshot.pipe.path = evil;
    snapshot.pipe.readers = {evil};
    snapshot.log.path = snapshot.log.problem = snapshot.log.started = evil;
    snapshot.detectors[0].id = snapshot.detectors[0].lastFile = evil;
    snapshot.detectors[0].shareUrl = snapshot.detectors[0].target = evil;
    const std::string text = watchText(snapshot, false);
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char character) {
        return character == '\n' || (character >= ' ' && character < 0x7f);
    })) << text;
    // The same number of lines: a name adds none.
    const Snapshot tame = [&snapshot] {
        Snapshot copy = snapshot;
        copy.lastFile = copy.lastComplaint = "a";
        return copy;
    }();
    const std::string tameText = watchText(tame, false);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'),
              std::count(tameText.begin(), tameText.end(), '\n'));
}

} // namespace

} // namespace control
