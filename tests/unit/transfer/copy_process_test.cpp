// Starting one copy process with its output in a pipe.
#include "daemon/global.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/faults.h"
#include "tests/unit/support/settings_test.h"
#include "transfer/copy_process.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class CopyProcess : public SettingsTest {
protected:
    /// Runs `command` with `program` as the copy program, and returns all that it printed.
    std::string outputOf(const std::string& program, const std::string& command) {
        GLOBAL::rsyncCommand = program;
        ReportPipe report;
        if (!report.open()) {
            return "no pipe";
        }
        pid = startCopyProcess(command, report);
        if (pid < 0) {
            return "no process";
        }
        report.writeEnd.reset();
        std::string output;
        char buffer[4096];
        ssize_t count = 0;
        while ((count = read(report.readEnd.get(), buffer, sizeof buffer)) > 0) {
            output.append(buffer, static_cast<std::size_t>(count));
        }
        waitpid(pid, &waitStatus, 0);
        return output;
    }

    pid_t pid = -1;
    int waitStatus = -1;
};

class ReportPipeTest : public SettingsTest {};

} // namespace

TEST_F(ReportPipeTest, HasBothEndsAboveTheStandardDescriptorsAndClosedOnExec) {
    const ChildOutcome outcome = runInChild([] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        ReportPipe report;
        if (!report.open()) {
            return std::string("no pipe");
        }
        std::string seen;
        for (const Descriptor* end : {&report.readEnd, &report.writeEnd}) {
            seen += end->get() > STDERR_FILENO ? "above " : "below ";
            seen += (fcntl(end->get(), F_GETFD) & FD_CLOEXEC) != 0 ? "cloexec " : "inherited ";
        }
        for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
            seen += fcntl(descriptor, F_GETFD) == -1 ? "free " : "taken ";
        }
        const bool carries = write(report.writeEnd.get(), "x", 1) == 1;
        char byte = 0;
        return seen + (carries && read(report.readEnd.get(), &byte, 1) == 1 && byte == 'x'
                           ? "carries"
                           : "broken");
    });
    EXPECT_EQ(outcome.result, "above cloexec above cloexec free free free carries");
}

TEST_F(ReportPipeTest, TellsAFailure) {
    FAULTS::pipe2.failAfter(0, EMFILE);
    ReportPipe report;
    EXPECT_FALSE(report.open());
    EXPECT_EQ(errno, EMFILE);
    EXPECT_LT(report.readEnd.get(), 0);
    EXPECT_LT(report.writeEnd.get(), 0);
}

TEST_F(ReportPipeTest, LeavesNothingOpenWhenItCannotBeMovedAboveTheStandardDescriptors) {
    const ChildOutcome outcome = runInChild([] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        rlimit before = {};
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit limit = {3, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
        ReportPipe report;
        const bool opened = report.open();
        const int error = errno;
        setrlimit(RLIMIT_NOFILE, &before);
        return std::string(opened ? "opened" : "failed") + (error == EMFILE ? " limit" : " other") +
               (fcntl(STDIN_FILENO, F_GETFD) == -1 ? " free" : " taken") +
               (fcntl(STDOUT_FILENO, F_GETFD) == -1 ? " free" : " taken");
    });
    EXPECT_EQ(outcome.result, "failed limit free free");
}

TEST_F(CopyProcess, SendsOutputAndErrorOutputIntoThePipe) {
    writeScript(scratch / "copy", "echo out\necho err >&2\nexit 3\n");
    EXPECT_EQ(outputOf(scratch / "copy", "copy"), "out\nerr\n");
    EXPECT_EQ(WEXITSTATUS(waitStatus), 3);
}

TEST_F(CopyProcess, ExecutesTheSettingWithTheCommandsWordsAsArguments) {
    EXPECT_EQ(outputOf("/bin/cat", "any-name /proc/self/cmdline"),
              std::string("any-name\0/proc/self/cmdline\0", 28));
}

TEST_F(CopyProcess, GivesQuotedTextAsOneArgumentWithoutItsMarks) {
    writeScript(scratch / "copy", "printf '[%s]' \"$@\"\n");
    EXPECT_EQ(outputOf(scratch / "copy", "copy  --out-format='SENT: %n' \"a b\" $HOME *"),
              "[--out-format=SENT: %n][a b][$HOME][*]");
}

TEST_F(CopyProcess, GetsTheOwnerAndNothingElseInItsEnvironment) {
    GLOBAL::uid = "1000";
    GLOBAL::gid = "staff";
    EXPECT_EQ(outputOf("/bin/cat", "cat /proc/self/environ"),
              std::string("RSYNC_UID=1000\0RSYNC_GID=staff\0", 31));
}

TEST_F(CopyProcess, GetsAnOwnerOfAnyLength) {
    GLOBAL::uid = std::string(300, '7');
    EXPECT_EQ(outputOf("/bin/cat", "cat /proc/self/environ"),
              "RSYNC_UID=" + GLOBAL::uid + std::string("\0RSYNC_GID=\0", 12));
}

TEST_F(CopyProcess, LeadsASessionOfItsOwn) {
    std::istringstream fields(outputOf("/bin/cat", "cat /proc/self/stat"));
    std::string number;
    std::string name;
    std::string state;
    std::string parent;
    std::string group;
    std::string session;
    fields >> number >> name >> state >> parent >> group >> session;
    EXPECT_EQ(number, std::to_string(pid));
    EXPECT_EQ(group, std::to_string(pid));
    EXPECT_EQ(session, std::to_string(pid));
}

TEST_F(CopyProcess, HasNoDescriptorButItsOutput) {
    // 0 is what ls itself opened: the lowest free number.
    const int inherited = open("/dev/null", O_RDONLY);
    ASSERT_GE(inherited, 0);
    EXPECT_EQ(outputOf("/bin/ls", "ls /proc/self/fd"), "0\n1\n2\n");
    close(inherited);
}

TEST_F(CopyProcess, HasNoDescriptorButItsOutputOnAKernelThatCannotCloseARange) {
    const int inherited = open("/dev/null", O_RDONLY);
    ASSERT_GE(inherited, 0);
    FAULTS::syscall.failAfter(0, ENOSYS);
    EXPECT_EQ(outputOf("/bin/ls", "ls /proc/self/fd"), "0\n1\n2\n");
    close(inherited);
}

TEST_F(CopyProcess, HasItsOutputWhicheverNumbersThePipeGot) {
    for (const std::string_view toClose : {"0", "1", "2", "01", "12", "02", "012"}) {
        const ChildOutcome outcome = runInChild([&] {
            for (const char digit : toClose) {
                close(digit - '0');
            }
            writeScript(scratch / "copy", "echo out\necho err >&2\n");
            return outputOf(scratch / "copy", "copy") + outputOf("/bin/ls", "ls /proc/self/fd");
        });
        EXPECT_EQ(outcome.result, "out\nerr\n0\n1\n2\n") << "with these closed: " << toClose;
    }
}

TEST_F(CopyProcess, EndsWithOneWhenTheProgramCannotBeExecuted) {
    EXPECT_EQ(outputOf(scratch / "missing", "missing"), "");
    ASSERT_TRUE(WIFEXITED(waitStatus));
    EXPECT_EQ(WEXITSTATUS(waitStatus), 1);
}

TEST_F(CopyProcess, IsNotLookedForInTheSearchPath) {
    EXPECT_EQ(outputOf("cat", "cat /proc/self/cmdline"), "");
    ASSERT_TRUE(WIFEXITED(waitStatus));
    EXPECT_EQ(WEXITSTATUS(waitStatus), 1);
}

TEST_F(CopyProcess, RunsNothingOfThisProgramWhenItCannotBeExecuted) {
    const ChildOutcome outcome = runInChild([this] {
        // It would write into the report.
        atexit([] { writeUnchecked(STDOUT_FILENO, "at exit"); });
        const std::string report = outputOf(scratch / "missing", "missing");
        return "report: " + report + ", status " + std::to_string(waitStatus);
    });
    EXPECT_EQ(outcome.result, "report: , status 256");
    EXPECT_EQ(outcome.output, "at exit");
    EXPECT_EQ(outcome.exits.size(), 1U);
}

TEST_F(CopyProcess, TellsAFailedFork) {
    ReportPipe report;
    ASSERT_TRUE(report.open());
    FAULTS::fork.failAfter(0, EAGAIN);
    EXPECT_EQ(startCopyProcess("copy", report), -1);
    EXPECT_EQ(errno, EAGAIN);
}
