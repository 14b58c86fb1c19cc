// Finding the configuration file and filling the settings from it.
#include "daemon/daemon.h"
#include "daemon/global.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/configured_test.h"

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

namespace {

class ConfigFile : public ConfiguredTest {};

} // namespace

TEST_F(ConfigFile, EndsTheProgramWith512WhenThereIsNone) {
    ASSERT_EQ(remove(configPath), 0);
    const ChildOutcome outcome = runInChild([] { Daemon daemon; });
    EXPECT_EQ(outcome.exitValue(), 512);
    EXPECT_EQ(outcome.status(), 0);
    EXPECT_EQ(outcome.errorOutput, "Error no config file found\n");
    EXPECT_EQ(outcome.output, "");
}

TEST_F(ConfigFile, IsLookedForBeforeTheCommandLineIsLookedAt) {
    ASSERT_EQ(remove(configPath), 0);
    commandLine({"--version"});
    const ChildOutcome outcome = runInChild([] { Daemon daemon; });
    EXPECT_EQ(outcome.exitValue(), 512);
    EXPECT_EQ(outcome.errorOutput, "Error no config file found\n");
    EXPECT_EQ(outcome.output, "");
}

TEST_F(ConfigFile, IsReadFromTheSecondPlaceWhenTheFirstIsAbsent) {
    ASSERT_EQ(remove(configPath), 0);
    writeFile(secondConfigPath, "uid second\n");
    const Daemon daemon;
    EXPECT_EQ(GLOBAL::uid, "second");
}

TEST_F(ConfigFile, IsReadFromTheFirstPlaceOnly) {
    configure({"uid first"});
    writeFile(secondConfigPath, "uid second\ngid second\ndetectorID 2\n");
    const Daemon daemon;
    EXPECT_EQ(GLOBAL::uid, "first");
    EXPECT_EQ(GLOBAL::gid, "");
    EXPECT_TRUE(daemon.detectors.empty());
}

TEST_F(ConfigFile, LeavesEveryDefaultWhenItIsEmpty) {
    writeFile(configPath, "");
    const Daemon daemon;
    EXPECT_EQ(GLOBAL::logFileName, "/dev/null");
    EXPECT_EQ(GLOBAL::uid, "");
    EXPECT_EQ(GLOBAL::gid, "");
    EXPECT_EQ(GLOBAL::usrdir, "");
    EXPECT_EQ(GLOBAL::logFileMaxSize, 10485760);
    EXPECT_EQ(GLOBAL::logFileMaxNumber, 10);
    EXPECT_EQ(GLOBAL::numberOfProcesses, 1);
    EXPECT_TRUE(daemon.detectors.empty());
}

TEST_F(ConfigFile, FillsEverySetting) {
    configure({"logfile_max_number 3", "logfile_max_size 2K", "uid 1000", "gid staff", "usrdir u"});
    const Daemon daemon;
    EXPECT_EQ(GLOBAL::logFileName, logPath);
    EXPECT_EQ(GLOBAL::logFileMaxNumber, 3);
    EXPECT_EQ(GLOBAL::logFileMaxSize, 2048);
    EXPECT_EQ(GLOBAL::uid, "1000");
    EXPECT_EQ(GLOBAL::gid, "staff");
    EXPECT_EQ(GLOBAL::usrdir, "u");
}

TEST_F(ConfigFile, KeepsADefaultWhenTheValueIsMissingOrNoNumber) {
    configure({"logfile_max_number many", "logfile_max_size", "uid", "usrdir   ", "gid 5"});
    const Daemon daemon;
    EXPECT_EQ(GLOBAL::logFileMaxNumber, 10);
    EXPECT_EQ(GLOBAL::logFileMaxSize, 10485760);
    EXPECT_EQ(GLOBAL::uid, "");
    EXPECT_EQ(GLOBAL::usrdir, "");
    EXPECT_EQ(GLOBAL::gid, "5");
}

TEST_F(ConfigFile, KeepsADefaultWhenItsKeyEndsTheFile) {
    for (const char* key : {"logfile_max_size", "logfile_max_number", "uid", "usrdir \t"}) {
        configure({key});
        const Daemon daemon;
        EXPECT_EQ(GLOBAL::logFileMaxSize, 10485760);
        EXPECT_EQ(GLOBAL::logFileMaxNumber, 10);
        EXPECT_EQ(GLOBAL::uid, "");
        EXPECT_EQ(GLOBAL::usrdir, "");
    }
}

TEST_F(ConfigFile, TakesTheNextLinesWordForAValueOfABlankAndATab) {
    configure({"usrdir  \t", "uid 500"});
    const Daemon daemon;
    EXPECT_EQ(GLOBAL::usrdir, "uid");
    EXPECT_EQ(GLOBAL::uid, "500");
}

TEST_F(ConfigFile, LetsTheFirstOfTwoLinesWin) {
    configure({"uid 1", "uid 2"});
    const Daemon daemon;
    EXPECT_EQ(GLOBAL::uid, "1");
}

TEST_F(ConfigFile, FindsGlobalKeysInsideADetectorBlock) {
    configure({"detectorID 1", "uid 7", "logfile_max_number 4"});
    const Daemon daemon;
    EXPECT_EQ(GLOBAL::uid, "7");
    EXPECT_EQ(GLOBAL::logFileMaxNumber, 4);
    EXPECT_EQ(daemon.detectors.size(), 1U);
}

TEST_F(ConfigFile, IsReadUpToALongLineOnly) {
    configure({"detectorID 1", "uid 7", std::string(1500, 'x'), "gid 8", "detectorID 2"});
    const Daemon daemon;
    EXPECT_EQ(GLOBAL::uid, "7");
    EXPECT_EQ(GLOBAL::gid, "");
    ASSERT_EQ(daemon.detectors.size(), 1U);
    EXPECT_EQ(daemon.detectors.begin()->first, "1");
}
