// The command line.
#include "daemon/daemon.h"
#include "daemon/global.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/configured_test.h"
#include "tests/unit/support/open_worker.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

const std::string usageText = "Usage: \n"
                              "      skarn ( start | restart ) [start options] | stop | status\n"
                              "            Start options:\n"
                              "            -u, --user UID:GID\n"
                              "                  Set uid (gid) of the copied files to UID (GID).\n"
                              "            -d, --detector DETECTOR_ID:SOURCE:TARGET\n"
                              "                  Set source (target) of the detector DETECTOR_ID\n"
                              "                  to SOURCE (TARGET).\n";

class CommandLine : public ConfiguredTest {
protected:
    void SetUp() override {
        ConfiguredTest::SetUp();
        configure({"uid 1", "gid 2", "detectorID 1", "remoteIP 10.0.0.1", "source /s1",
                   "target /t1", "detectorID 2", "source /s2", "target /t2"});
    }

    /// Runs the configuration with these words, which must end the process.
    ChildOutcome outcomeOf(const std::vector<std::string>& words) {
        commandLine(words);
        return runInChild([] {
            Daemon daemon;
            return std::string("came back");
        });
    }

    /// Expects that these words end the process with 1 and this error output, before the log is
    /// touched.
    void expectRefused(const std::vector<std::string>& words, const std::string& errors) {
        const ChildOutcome outcome = outcomeOf(words);
        EXPECT_EQ(outcome.exitValue(), 1);
        EXPECT_EQ(outcome.status(), 1);
        EXPECT_EQ(outcome.result, "");
        EXPECT_EQ(outcome.errorOutput, errors);
        EXPECT_EQ(outcome.output, "");
        EXPECT_FALSE(exists(logPath));
    }

    /// Uid and gid after these words.
    std::string ownerAfter(const std::vector<std::string>& words) {
        commandLine(words);
        const Daemon daemon;
        return GLOBAL::uid + ":" + GLOBAL::gid;
    }

    /// Source and target of both detectors after these words.
    std::string detectorsAfter(const std::vector<std::string>& words) {
        commandLine(words);
        const Daemon daemon;
        std::string text;
        for (const auto& [id, worker] : daemon.detectors) {
            text += describe(*worker) + "\n";
        }
        return text;
    }

    const std::string first = "1|10.0.0.1|/s1/|/t1/.|0|0\n";
    const std::string second = "2||/s2/|/t2/.|0|0\n";
};

} // namespace

TEST_F(CommandLine, LeavesTheConfigurationWhenThereAreNoWords) {
    EXPECT_EQ(ownerAfter({}), "1:2");
    EXPECT_EQ(detectorsAfter({}), first + second);
}

TEST_F(CommandLine, LeavesTheConfigurationWhenThereIsNotEvenAName) {
    GLOBAL::argc = 0;
    GLOBAL::argv = nullptr;
    const Daemon daemon;
    EXPECT_EQ(GLOBAL::uid, "1");
}

TEST_F(CommandLine, SetsTheOwner) {
    EXPECT_EQ(ownerAfter({"-u", "1000:100"}), "1000:100");
    EXPECT_EQ(ownerAfter({"--user", "alice:staff"}), "alice:staff");
}

TEST_F(CommandLine, DropsAnEmptyFieldOfTheOwner) {
    EXPECT_EQ(ownerAfter({"-u", "1000::100"}), "1000:100");
    EXPECT_EQ(ownerAfter({"-u", ":1000:100:"}), "1000:100");
}

TEST_F(CommandLine, LetsTheLastOwnerWin) {
    EXPECT_EQ(ownerAfter({"-u", "5:6", "--user", "7:8"}), "7:8");
}

TEST_F(CommandLine, RefusesAnOwnerOfOtherThanTwoFields) {
    expectRefused({"-u", "1000"}, usageText);
    expectRefused({"-u", "1:2:3"}, usageText);
    expectRefused({"-u", ""}, usageText);
    expectRefused({"--user", ":"}, usageText);
}

TEST_F(CommandLine, RefusesAnOptionWithoutValue) {
    expectRefused({"-u"}, usageText);
    expectRefused({"--user"}, usageText);
    expectRefused({"-d"}, usageText);
    expectRefused({"--detector"}, usageText);
    expectRefused({"-u", "1:2", "-d"}, usageText);
}

TEST_F(CommandLine, RepointsADetector) {
    EXPECT_EQ(detectorsAfter({"-d", "1:/src:/dst"}), "1|10.0.0.1|/src/|/dst/.|0|0\n" + second);
    EXPECT_EQ(detectorsAfter({"--detector", "2:src:dst/"}), first + "2||/src/|dst/.|0|0\n");
}

TEST_F(CommandLine, KeepsAQuotedColon) {
    EXPECT_EQ(detectorsAfter({"-d", "1:'/a:b':/dst"}), "1|10.0.0.1|/a:b/|/dst/.|0|0\n" + second);
    EXPECT_EQ(detectorsAfter({"-d", "1:/src:\"/c:d\""}), "1|10.0.0.1|/src/|/c:d/.|0|0\n" + second);
}

TEST_F(CommandLine, LetsTheLastWordOnADetectorWin) {
    EXPECT_EQ(detectorsAfter({"-d", "1:/a:/b", "-d", "2:/c:/d", "-d", "1:/e:/f"}),
              "1|10.0.0.1|/e/|/f/.|0|0\n2||/c/|/d/.|0|0\n");
}

TEST_F(CommandLine, RefusesADetectorOfOtherThanThreeFields) {
    expectRefused({"-d", "1"}, usageText);
    expectRefused({"-d", "1:/src"}, usageText);
    expectRefused({"-d", "1::/dst"}, usageText);
    expectRefused({"-d", "1:/src:/dst:x"}, usageText);
}

TEST_F(CommandLine, RefusesADetectorThatIsNotConfigured) {
    expectRefused({"-d", "3:/src:/dst"}, "No detectorID 3 found in config file\n");
    expectRefused({"--detector", "one:/src:/dst"}, "No detectorID one found in config file\n");
}

TEST_F(CommandLine, ShowsTheVersion) {
    const ChildOutcome outcome = outcomeOf({"--version"});
    EXPECT_EQ(outcome.exitValue(), 0);
    EXPECT_EQ(outcome.result, "");
    EXPECT_EQ(outcome.output, "SKARN version 3.7.1\nCopyright (C) 2026 the skarn authors\n");
    EXPECT_EQ(outcome.errorOutput, "");
    EXPECT_FALSE(exists(logPath));
}

TEST_F(CommandLine, ShowsTheVersionBehindAPairOfWords) {
    const ChildOutcome outcome = outcomeOf({"-u", "1:2", "--version"});
    EXPECT_EQ(outcome.exitValue(), 0);
    EXPECT_EQ(outcome.output, "SKARN version 3.7.1\nCopyright (C) 2026 the skarn authors\n");
}

TEST_F(CommandLine, TakesTheVersionOptionAsAValueAtAnEvenPlace) {
    expectRefused({"-u", "--version"}, usageText);
    expectRefused({"-d", "--version"}, usageText);
}

TEST_F(CommandLine, RefusesAnUnknownWord) {
    expectRefused({"-x"}, "Unknown option -x\n" + usageText);
    expectRefused({"start"}, "Unknown option start\n" + usageText);
    expectRefused({"-u", "1:2", "stop"}, "Unknown option stop\n" + usageText);
    expectRefused({""}, "Unknown option \n" + usageText);
    expectRefused({"-U", "1:2"}, "Unknown option -U\n" + usageText);
    expectRefused({"-u1:2"}, "Unknown option -u1:2\n" + usageText);
}

TEST_F(CommandLine, RefusesAtTheFirstBadPair) {
    expectRefused({"-d", "3:/src:/dst", "-x"}, "No detectorID 3 found in config file\n");
    expectRefused({"-x", "value", "--version"}, "Unknown option -x\n" + usageText);
}

TEST_F(CommandLine, NamesTheProgramByItsSettingInTheUsageText) {
    GLOBAL::progName = "other";
    const ChildOutcome outcome = outcomeOf({"-u"});
    EXPECT_EQ(linesOf(outcome.errorOutput).at(1),
              "      other ( start | restart ) [start options] | stop | status");
}

TEST_F(CommandLine, HasTheUserDirectoryAppendedToATargetThatItSets) {
    configure({"usrdir u", "detectorID 1", "target /t1"});
    EXPECT_EQ(detectorsAfter({"-d", "1:/src:/dst"}), "1||/src/|/dst/./u|0|0\n");
}
