// Each way in which a start can fail has its own sentence.
#include "control/service/start_report.h"

#include <cerrno>
#include <csignal>

#include <gtest/gtest.h>

namespace control {

namespace {

constexpr int exited(int status) {
    return status << 8; // as waitpid gives it
}

/// A start of which nothing is known but that it left no daemon.
StartObservation start() {
    StartObservation seen;
    seen.daemonPath = "/usr/sbin/skarn";
    seen.limitSeconds = 10;
    seen.logPath = "/var/log/skarn.log";
    seen.logIsReadable = true;
    seen.configPaths = {"/etc/one.conf", "/etc/two.conf"};
    seen.hasConfig = true;
    seen.passwordFile = "/secrets";
    seen.copyProgram = "/copy";
    seen.detectorCount = 1;
    return seen;
}

StartObservation detached() {
    StartObservation seen = start();
    seen.detached = true;
    seen.pid = 812;
    return seen;
}

TEST(WhyNotStarted, SaysWhyTheCommandCouldNotBeRun) {
    StartObservation seen = start();
    seen.startError = ENOENT;
    EXPECT_EQ(whyNotStarted(seen), "cannot run /usr/sbin/skarn: No such file or directory");
}

TEST(WhyNotStarted, SaysThatTheCommandHung) {
    StartObservation seen = start();
    seen.letGo = false;
    EXPECT_EQ(whyNotStarted(seen),
              "/usr/sbin/skarn did not detach within 10 seconds and was killed");
}

TEST(WhyNotStarted, TellsTheNeedsApartByWhatTheDaemonSaid) {
    StartObservation seen = start();
    seen.errors = "Error no config file found\n";
    EXPECT_EQ(whyNotStarted(seen), "there is no configuration file: neither /etc/one.conf nor "
                                   "/etc/two.conf can be read");
    seen.errors = "Cannot access /var/log/skarn.log\n";
    EXPECT_EQ(whyNotStarted(seen), "the log /var/log/skarn.log can't be written");
    seen.logProblem = "Permission denied";
    EXPECT_EQ(whyNotStarted(seen),
              "the log /var/log/skarn.log can't be written: Permission denied");

    seen = start();
    seen.newLogText = "something\nError: /secrets does not exist\n";
    EXPECT_EQ(whyNotStarted(seen), "the password file /secrets is missing");
    seen.newLogText = "Error: /copy: no such file or directory\n";
    EXPECT_EQ(whyNotStarted(seen), "the copy program /copy is missing");
    seen.newLogText = "Error: /copy does not exist or is not executable\n";
    EXPECT_EQ(whyNotStarted(seen), "the copy program /copy may not be executed by its owner");
    seen.hasCopyProgram = false;
    EXPECT_EQ(whyNotStarted(seen), "the copy program /copy is missing");
    seen = start();
    seen.errors = "\n  Something else\nand more\n";
    EXPECT_EQ(whyNotStarted(seen), "the daemon said: Something else");
}

TEST(WhyNotStarted, LooksItselfWhenNothingWasSaid) {
    StartObservation seen = start();
    EXPECT_EQ(whyNotStarted(seen), "/usr/sbin/skarn ended with status 0 and left no daemon");
    seen.copyProgramIsExecutable = false;
    EXPECT_EQ(whyNotStarted(seen), "the copy program /copy may not be executed by its owner");
    seen.hasCopyProgram = false;
    EXPECT_EQ(whyNotStarted(seen), "the copy program /copy is missing");
    seen.hasPasswordFile = false;
    EXPECT_EQ(whyNotStarted(seen), "the password file /secrets is missing");
    seen.output = "SKARN version 3.7.1\nmore\n";
    EXPECT_EQ(whyNotStarted(seen), "the daemon only printed: SKARN version 3.7.1");
}

TEST(WhyNotStarted, PassesOnWhatIsWrongWithTheOptions) {
    StartObservation seen = start();
    seen.starterStatus = exited(1);
    seen.errors = "Unknown option -x\nUsage: \n      skarn ...\n";
    const std::string beginning = "the daemon does not understand its start options: ";
    EXPECT_EQ(whyNotStarted(seen), beginning + "Unknown option -x");
    seen.errors = "Usage: \n      skarn ...\n";
    EXPECT_EQ(whyNotStarted(seen), beginning + "it printed its usage text");
    seen.badOption = "-u needs UID:GID";
    EXPECT_EQ(whyNotStarted(seen), beginning + "-u needs UID:GID");
}

TEST(WhyNotStarted, KnowsTheOtherEndsOfTheCommand) {
    StartObservation seen = start();
    seen.starterStatus = exited(8);
    EXPECT_EQ(whyNotStarted(seen), "the system has no room for another process (status 8)");
    seen.starterStatus = exited(99);
    seen.errors = "Odd\n";
    EXPECT_EQ(whyNotStarted(seen), "/usr/sbin/skarn ended with status 99: Odd");
    seen.starterStatus = SIGSEGV;
    seen.errors = "";
    EXPECT_EQ(whyNotStarted(seen), "/usr/sbin/skarn was killed by signal 11 (Segmentation fault)");
}

TEST(WhyNotStarted, KnowsTheEndsOfTheDaemon) {
    StartObservation seen = detached();
    seen.daemonStatus = exited(64);
    EXPECT_EQ(whyNotStarted(seen), "the daemon can't write its PID file");
    seen.pidFileProblem = "/var/run/x: Read-only file system";
    EXPECT_EQ(whyNotStarted(seen),
              "the daemon can't write its PID file: /var/run/x: Read-only file system");
    seen.daemonStatus = exited(16);
    EXPECT_EQ(whyNotStarted(seen), "the daemon could not begin a session of its own (status 16)");
    seen.daemonStatus = exited(32);
    EXPECT_EQ(whyNotStarted(seen), "the daemon could not change to the folder / (status 32)");
    seen.daemonStatus = exited(0);
    EXPECT_EQ(whyNotStarted(seen), "the daemon ended at once, with status 0");
    seen.detectorCount = 0;
    EXPECT_EQ(whyNotStarted(seen),
              "the daemon ended at once, because the configuration has no detector");
    seen.daemonStatus = SIGKILL;
    EXPECT_EQ(whyNotStarted(seen), "the daemon, process 812, was killed by signal 9 (Killed)");
}

TEST(WhyNotStarted, SaysWhatARunningDaemonLacks) {
    StartObservation seen = detached();
    EXPECT_EQ(whyNotStarted(seen),
              "the daemon, process 812, did not write its PID file within 10 seconds");
    seen.pidFileIsIts = true;
    EXPECT_EQ(whyNotStarted(seen),
              "the daemon, process 812, runs, but wrote nothing into the log /var/log/skarn.log "
              "within 10 seconds: is there space left on that file system?");
    seen.hasBanner = true;
    seen.limitSeconds = 1;
    EXPECT_EQ(whyNotStarted(seen),
              "the daemon, process 812, runs, but did not start to work within 1 second");
}

TEST(FirstLine, SkipsWhatIsEmpty) {
    EXPECT_EQ(firstLine(""), "");
    EXPECT_EQ(firstLine("\n \t\n"), "");
    EXPECT_EQ(firstLine("\n  a b \r\nc\n"), "a b");
}

} // namespace

} // namespace control
