// Start-up while still attached to the terminal.
#include "daemon/daemon.h"
#include "daemon/global.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/configured_test.h"
#include "transfer/worker.h"

#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class DaemonInit : public ConfiguredTest {
protected:
    /// Target of detector 1 with this user directory and target.
    std::string targetWith(const std::string& usrdir, const std::string& target,
                           const std::vector<std::string>& words = {}) {
        GLOBAL::usrdir.clear();
        configure({"uid 1000", "gid 100", "usrdir " + usrdir, "detectorID 1", "target " + target});
        commandLine(words);
        const Daemon daemon;
        return daemon.detectors.at("1")->target();
    }

    /// Expects that start-up ends with this value, of which a parent sees nothing.
    static ChildOutcome expectEnd(int value) {
        ChildOutcome outcome = runInChild([] {
            Daemon daemon;
            return std::string("came back");
        });
        EXPECT_EQ(outcome.exitValue(), value);
        EXPECT_EQ(outcome.status(), 0);
        EXPECT_EQ(outcome.result, "");
        EXPECT_EQ(outcome.output, "");
        return outcome;
    }
};

} // namespace

TEST_F(DaemonInit, ReturnsWhenAllIsWell) {
    configure({"detectorID 1"});
    const Daemon daemon;
    EXPECT_EQ(daemon.detectors.size(), 1U);
    EXPECT_EQ(logText(), "");
    EXPECT_EQ(permissions(logPath), 0644U);
    EXPECT_FALSE(daemon.detectors.at("1")->isRunning());
}

TEST_F(DaemonInit, LeavesTheTargetsWithoutUserDirectory) {
    configure({"detectorID 1", "target /data"});
    const Daemon daemon;
    EXPECT_EQ(daemon.detectors.at("1")->target(), "/data/.");
}

TEST_F(DaemonInit, AppendsTheUserDirectoryToEveryTarget) {
    configure({"usrdir x", "detectorID 1", "target /data", "detectorID 2", "target /other/"});
    const Daemon daemon;
    // A target is stored with "/." at its end, so that a "/" comes between.
    EXPECT_EQ(daemon.detectors.at("1")->target(), "/data/./x");
    EXPECT_EQ(daemon.detectors.at("2")->target(), "/other/./x");
}

TEST_F(DaemonInit, PutsUidAndGidIntoTheUserDirectory) {
    EXPECT_EQ(targetWith("u$UID/g$GID", "/data"), "/data/./u1000/g100");
    EXPECT_EQ(GLOBAL::usrdir, "u1000/g100");
}

TEST_F(DaemonInit, TakesUidAndGidFromTheCommandLineIfTheyAreThere) {
    EXPECT_EQ(targetWith("u$UID/g$GID", "/data", {"-u", "7:8"}), "/data/./u7/g8");
}

TEST_F(DaemonInit, ReplacesTheFirstOccurrenceOnly) {
    targetWith("$UID/$UID/$GID/$GID", "/data");
    EXPECT_EQ(GLOBAL::usrdir, "1000/$UID/100/$GID");
}

TEST_F(DaemonInit, LooksForTheGidInWhatTheUidGave) {
    configure({"uid $GID", "gid 5", "usrdir $UID/$GID", "detectorID 1"});
    const Daemon daemon;
    EXPECT_EQ(GLOBAL::usrdir, "5/$GID");
}

TEST_F(DaemonInit, NeitherAddsNorStripsASlashOfTheUserDirectory) {
    EXPECT_EQ(targetWith("/x", "/data"), "/data/.//x");
    EXPECT_EQ(targetWith("x/", "/data"), "/data/./x/");
    EXPECT_EQ(targetWith("x", "/a/.b/"), "/a/.b/x");
    EXPECT_EQ(targetWith("/x", "/a/.b/"), "/a/.b//x");
    EXPECT_EQ(targetWith("x", "/a/.b"), "/a/.b/x");
}

TEST_F(DaemonInit, TreatsAnEmptyUserDirectoryAsNone) {
    configure({"uid 1", "usrdir $GID", "detectorID 1", "target /data"});
    const Daemon daemon;
    EXPECT_EQ(daemon.detectors.at("1")->target(), "/data/.");
}

TEST_F(DaemonInit, EndsWith1024WhenTheLogCannotBeOpened) {
    const std::string path = scratch / "missing/log";
    writeFile(configPath, "logfile " + path + "\n");
    const ChildOutcome outcome = expectEnd(1024);
    EXPECT_EQ(outcome.errorOutput, "Cannot access " + path + "\n");
}

TEST_F(DaemonInit, EndsWith4096WhenThePasswordFileIsMissing) {
    ASSERT_EQ(remove(GLOBAL::passwordFile.c_str()), 0);
    // The copy program is looked at later.
    ASSERT_EQ(remove(GLOBAL::rsyncCommand.c_str()), 0);
    const ChildOutcome outcome = expectEnd(4096);
    EXPECT_EQ(outcome.errorOutput, "");
    EXPECT_EQ(logText(), "Error: /usr/local/orbelin/etc/rsyncd.secrets_remote does not exist\n");
}

TEST_F(DaemonInit, EndsWith2048WhenTheCopyProgramIsMissing) {
    ASSERT_EQ(remove(GLOBAL::rsyncCommand.c_str()), 0);
    const ChildOutcome outcome = expectEnd(2048);
    EXPECT_EQ(outcome.errorOutput, "");
    EXPECT_EQ(logText(),
              "Error: /usr/local/orbelin/bin/rsync_orbelin: no such file or directory\n");
}

TEST_F(DaemonInit, EndsWith2048WhenTheCopyProgramsOwnerMayNotExecuteIt) {
    for (const mode_t mode : {0644U, 0655U, 0611U, 0000U}) {
        writeFile(logPath, "");
        ASSERT_EQ(chmod(GLOBAL::rsyncCommand.c_str(), mode), 0);
        const ChildOutcome outcome = expectEnd(2048);
        EXPECT_EQ(outcome.errorOutput, "");
        EXPECT_EQ(logText(), "Error: /usr/local/orbelin/bin/rsync_orbelin does not exist or is not "
                             "executable\n");
    }
}

TEST_F(DaemonInit, AcceptsACopyProgramThatItsOwnerAloneMayExecute) {
    ASSERT_EQ(chmod(GLOBAL::rsyncCommand.c_str(), 0100), 0);
    const Daemon daemon;
    EXPECT_EQ(logText(), "");
}

TEST_F(DaemonInit, AddsItsErrorToTheLogThatIsThere) {
    writeFile(logPath, "earlier\n");
    ASSERT_EQ(remove(GLOBAL::passwordFile.c_str()), 0);
    expectEnd(4096);
    EXPECT_EQ(linesOf(logText()).at(0), "earlier");
    EXPECT_EQ(linesOf(logText()).size(), 2U);
}

TEST_F(DaemonInit, CopesWithAWorkingDirectoryThatIsGone) {
    const ChildOutcome outcome = runInChild([this] {
        const std::string gone = scratch / "gone";
        if (mkdir(gone.c_str(), 0755) != 0 || chdir(gone.c_str()) != 0 ||
            rmdir(gone.c_str()) != 0) {
            return std::string("no directory to lose");
        }
        const Daemon daemon;
        return std::string("came back");
    });
    EXPECT_EQ(outcome.result, "came back");
}
