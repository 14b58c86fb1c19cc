// The dry-run date query.
#include "tests/unit/support/faults.h"
#include "tests/unit/support/settings_test.h"
#include "utilities/clock_query.h"

#include <cerrno>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

/// Puts a program named rsyncCommand in front of the search path.
class ClockQuery : public SettingsTest {
protected:
    void SetUp() override {
        SettingsTest::SetUp();
        const char* const path = getenv("PATH");
        searchPath = path == nullptr ? "" : path;
        setenv("PATH", (scratch.path() + ":" + searchPath).c_str(), 1);
    }

    void TearDown() override {
        setenv("PATH", searchPath.c_str(), 1);
        // A query without a date line leaves its child behind.
        while (waitpid(-1, nullptr, 0) > 0) {
        }
        SettingsTest::TearDown();
    }

    void answer(const std::string& text) {
        writeFile(scratch / "answer", text);
        writeScript(scratch / "rsyncCommand", "printf '%s\\n' \"$@\" >" + scratch / "arguments" +
                                                  "\ncat " + scratch / "answer\n");
    }

    int query() {
        return UTILITIES::getRsyncTime("ignored1", "/etc/secret", "10.1.2.3", "ramdisk/data",
                                       "ignored5", "clock", transcript);
    }

    const std::string commandLine =
        "rsyncCommand -n --out-format='DET_DATE: %t' --password-file=/etc/secret "
        "root@10.1.2.3:ramdisk/data/clock\n";
    std::string transcript = "old";

private:
    std::string searchPath;
};

} // namespace

TEST_F(ClockQuery, FailsOnEmptyOutputWithTheCommandLineAloneInTheTranscript) {
    leavesDescriptorsOpen();
    answer("");
    EXPECT_EQ(query(), -1);
    EXPECT_EQ(transcript, commandLine);
}

TEST_F(ClockQuery, RunsTheProgramOfTheSearchPathThroughTheShell) {
    leavesDescriptorsOpen();
    answer("");
    query();
    EXPECT_EQ(readFile(scratch / "arguments"), "-n\n--out-format=DET_DATE: %t\n"
                                               "--password-file=/etc/secret\n"
                                               "root@10.1.2.3:ramdisk/data/clock\n");
}

TEST_F(ClockQuery, FailsOnADateLineWhichEndsTheTranscript) {
    answer("DET_DATE: 2012/05/14-10:20:30\n");
    EXPECT_EQ(query(), -1);
    EXPECT_EQ(transcript, commandLine + "DET_DATE: 2012/05/14-10:20:30\n\n");
}

TEST_F(ClockQuery, KeepsEachLineBeforeTheDateLineWithALineFeedMore) {
    answer("one\ntwo DET_DATE: no\nDET_DATE: x\nnever read\n");
    EXPECT_EQ(query(), -1);
    EXPECT_EQ(transcript, commandLine + "one\n\ntwo DET_DATE: no\n\nDET_DATE: x\n\n");
}

TEST_F(ClockQuery, AddsTheLineFeedBehindALastLineThatHasNone) {
    leavesDescriptorsOpen();
    answer("no date");
    EXPECT_EQ(query(), -1);
    EXPECT_EQ(transcript, commandLine + "no date\n");
}

TEST_F(ClockQuery, TakesALongLineInPieces) {
    leavesDescriptorsOpen();
    answer(std::string(1500, 'x') + "\n");
    EXPECT_EQ(query(), -1);
    EXPECT_EQ(transcript,
              commandLine + std::string(1023, 'x') + "\n" + std::string(477, 'x') + "\n\n");
}

TEST_F(ClockQuery, FailsWhenTheProgramIsMissing) {
    leavesDescriptorsOpen();
    EXPECT_EQ(query(), -1);
    EXPECT_EQ(transcript, commandLine);
}

TEST_F(ClockQuery, FailsWhenTheProgramCannotBeStarted) {
    FAULTS::popen.failAfter(0, EMFILE);
    EXPECT_EQ(query(), -1);
    EXPECT_EQ(transcript, commandLine);
}
