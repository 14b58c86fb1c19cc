// Opening, writing and closing the consumer's named pipe.
#include "daemon/global.h"
#include "log/log_file.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/fifo_reader.h"
#include "tests/unit/support/settings_test.h"
#include "tests/unit/support/waiting.h"
#include "transfer/handoff_pipe.h"

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class HandoffPipeTest : public SettingsTest {
protected:
    void SetUp() override {
        SettingsTest::SetUp();
        GLOBAL::pathToVantrelFifo = fifoPath;
        log.open(logPath);
    }

    std::string logText() const { return readFile(logPath); }

    /// The descriptors that are open on the named pipe, the reader's not counted.
    std::vector<int> writingEnds() const {
        std::vector<int> ends;
        for (const int descriptor : openDescriptors()) {
            std::array<char, 4096> target{};
            const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
            if (readlink(link.c_str(), target.data(), target.size() - 1) > 0 &&
                fifoPath == target.data() && (fcntl(descriptor, F_GETFL) & O_ACCMODE) == O_WRONLY) {
                ends.push_back(descriptor);
            }
        }
        return ends;
    }

    const std::string fifoPath = scratch / "fifo";
    const std::string logPath = scratch / "log";
    LogFile log{nullptr};
};

class Usershift : public HandoffPipeTest {};

} // namespace

TEST_F(HandoffPipeTest, WarnsOnceWhenThePipeIsAbsentAndDropsEveryRecord) {
    const std::string target = "/images/.";
    HandoffPipe pipe(log, target);
    pipe.open();
    pipe.pass("a");
    pipe.pass("b");
    pipe.close();
    EXPECT_EQ(logText(), "++ Warning: No pipe to VANTREL\n");
    EXPECT_FALSE(exists(fifoPath));
}

TEST_F(HandoffPipeTest, WaitsForADescriptorWhenTheDaemonHasNone) {
    makeFifo(fifoPath);
    FifoReader reader(fifoPath);
    const std::string target = "/images/.";
    HandoffPipe pipe(log, target);
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    std::atomic<bool> runs{false};
    std::atomic<bool> limited{false};
    std::atomic<bool> begun{false};
    std::atomic<bool> opened{false};
    std::thread evaluator([&] {
        runs = true;
        waitUntil([&] { return limited.load(); });
        begun = true;
        pipe.open();
        opened = true;
    });
    // UBSan, which opens a pipe to check what a thread begins with, would find none either.
    EXPECT_TRUE(waitUntil([&] { return runs.load(); }));
    const rlimit none = {0, before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    limited = true;
    EXPECT_TRUE(waitUntil([&] { return begun.load(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(opened);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    evaluator.join();
    pipe.pass("a");
    pipe.close();
    EXPECT_EQ(reader.text(), "/images/./a\n");
    EXPECT_EQ(logText(), "");
}

TEST_F(HandoffPipeTest, WritesTargetSlashNameAndLineFeed) {
    makeFifo(fifoPath);
    FifoReader reader(fifoPath);
    const std::string target = "/images/.";
    HandoffPipe pipe(log, target);
    pipe.open();
    pipe.pass("run1/a.dat");
    pipe.pass("");
    pipe.close();
    EXPECT_EQ(reader.text(), "/images/./run1/a.dat\n/images/./\n");
    EXPECT_EQ(logText(), "");
}

TEST_F(HandoffPipeTest, OpensThePipeAboveTheStandardDescriptorsAndClosesItOnExec) {
    makeFifo(fifoPath);
    const FifoReader reader(fifoPath);
    const std::string target = "/t";
    const ChildOutcome outcome = runInChild([&] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        HandoffPipe pipe(log, target);
        pipe.open();
        const std::vector<int> ends = writingEnds();
        if (ends.size() != 1) {
            return std::to_string(ends.size()) + " ends";
        }
        return std::string(ends[0] > STDERR_FILENO ? "above" : "below") +
               ((fcntl(ends[0], F_GETFD) & FD_CLOEXEC) != 0 ? " cloexec" : " inherited");
    });
    EXPECT_EQ(outcome.result, "above cloexec");
}

TEST_F(HandoffPipeTest, IsNotTakenForAbsentWhenDescriptorZeroIsFree) {
    makeFifo(fifoPath);
    FifoReader reader(fifoPath);
    const std::string target = "/t";
    runInChild([&] {
        close(STDIN_FILENO);
        HandoffPipe pipe(log, target);
        pipe.open();
        pipe.pass("a");
    });
    EXPECT_EQ(reader.text(), "/t/a\n");
    EXPECT_EQ(logText(), "");
}

TEST_F(HandoffPipeTest, ClosesThePipeAtCloseAndAtItsEnd) {
    makeFifo(fifoPath);
    const FifoReader reader(fifoPath);
    const std::string target = "/t";
    HandoffPipe pipe(log, target);
    pipe.open();
    EXPECT_EQ(writingEnds().size(), 1U);
    pipe.close();
    EXPECT_TRUE(writingEnds().empty());
    pipe.close();
    {
        HandoffPipe other(log, target);
        other.open();
        EXPECT_EQ(writingEnds().size(), 1U);
    }
    EXPECT_TRUE(writingEnds().empty());
}

TEST_F(HandoffPipeTest, WaitsAtOpenUntilThereIsAReader) {
    makeFifo(fifoPath);
    const std::string target = "/t";
    std::atomic<bool> isOpen{false};
    std::thread writer([&] {
        HandoffPipe pipe(log, target);
        pipe.open();
        isOpen = true;
        pipe.pass("a");
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(isOpen);
    FifoReader reader(fifoPath);
    EXPECT_TRUE(waitUntil([&] { return reader.text() == "/t/a\n"; }));
    writer.join();
    EXPECT_TRUE(isOpen);
}

TEST_F(HandoffPipeTest, WritesARecordOf4096BytesWithoutAWord) {
    makeFifo(fifoPath);
    FifoReader reader(fifoPath);
    const std::string target = "/" + std::string(3000, 't');
    const std::string name(4096 - target.size() - 2, 'n');
    HandoffPipe pipe(log, target);
    pipe.open();
    pipe.pass(name);
    EXPECT_EQ(reader.text().size(), 4096U);
    EXPECT_EQ(reader.text(), target + "/" + name + "\n");
    EXPECT_EQ(logText(), "");
}

TEST_F(HandoffPipeTest, WarnsOfARecordOf4097BytesAndWritesIt) {
    makeFifo(fifoPath);
    FifoReader reader(fifoPath);
    const std::string target = "/" + std::string(3000, 't');
    const std::string name(4097 - target.size() - 2, 'n');
    HandoffPipe pipe(log, target);
    pipe.open();
    pipe.pass(name);
    EXPECT_EQ(reader.text(), target + "/" + name + "\n");
    EXPECT_EQ(logText(), "++ Warning: Path to \"" + name +
                             "\" is longer than 4096\n"
                             "            Atomicity of pipe operation is not guaranteed.\n");
}

TEST_F(HandoffPipeTest, ReportsEveryRecordOfAPipeThatCouldNotBeOpened) {
    // A directory is there, and can't be opened for writing, whatever the rights.
    ASSERT_EQ(mkdir(fifoPath.c_str(), 0755), 0);
    const std::string target = "/t";
    HandoffPipe pipe(log, target);
    pipe.open();
    pipe.pass("a");
    pipe.pass("b");
    pipe.close();
    EXPECT_EQ(logText(), "++ Error: Failed to pass a to VANTREL\n"
                         "          Bad file descriptor\n"
                         "++ Error: Failed to pass b to VANTREL\n"
                         "          Bad file descriptor\n");
}

TEST_F(HandoffPipeTest, ReportsAnOverflow) {
    makeFifo(fifoPath);
    const FifoReader reader(fifoPath);
    const std::string target = "/t";
    HandoffPipe pipe(log, target);
    pipe.open();
    const std::vector<int> ends = writingEnds();
    ASSERT_EQ(ends.size(), 1U);
    // Whoever shares the open pipe may make it non-blocking; then a full one refuses a record.
    ASSERT_EQ(fcntl(ends[0], F_SETFL, O_WRONLY | O_NONBLOCK), 0);
    const std::string block(4096, 'x');
    while (write(ends[0], block.data(), block.size()) > 0) {
    }
    pipe.pass("a");
    EXPECT_EQ(logText(), "++ Error: Failed to pass a to VANTREL\n"
                         "          Pipe to VANTREL has overflown\n");
}

TEST_F(HandoffPipeTest, EndsTheProgramWhenTheReaderHasGone) {
    makeFifo(fifoPath);
    const std::string target = "/t";
    const ChildOutcome outcome = runInChild([&] {
        FifoReader reader(fifoPath);
        HandoffPipe pipe(log, target);
        pipe.open();
        reader.close();
        pipe.pass("a");
    });
    ASSERT_TRUE(outcome.ended);
    ASSERT_TRUE(WIFSIGNALED(outcome.waitStatus));
    EXPECT_EQ(WTERMSIG(outcome.waitStatus), SIGPIPE);
}

TEST_F(HandoffPipeTest, KeepsTheRecordsOfSeveralWritersWhole) {
    makeFifo(fifoPath);
    FifoReader reader(fifoPath);
    constexpr std::size_t records = 300;
    const std::string target = "/" + std::string(900, 't');
    const auto write = [&](const std::string& name) {
        LogFile own(nullptr);
        own.open(logPath);
        HandoffPipe pipe(own, target);
        pipe.open();
        for (std::size_t i = 0; i < records; ++i) {
            pipe.pass(name);
        }
    };
    std::thread first(write, "a");
    std::thread second(write, "b");
    const std::size_t expected = 2 * records * (target.size() + 3);
    EXPECT_TRUE(waitUntil([&] { return reader.text().size() >= expected; }));
    first.join();
    second.join();
    EXPECT_EQ(countOf(reader.text(), target + "/a\n"), records);
    EXPECT_EQ(countOf(reader.text(), target + "/b\n"), records);
    EXPECT_EQ(reader.text().size(), expected);
}

TEST_F(Usershift, WritesTheOwnerAndKeepsThePipeOpen) {
    GLOBAL::uid = "1000";
    GLOBAL::gid = "staff";
    makeFifo(fifoPath);
    FifoReader reader(fifoPath);
    const ChildOutcome outcome = runInChild([this] {
        close(STDIN_FILENO);
        sendUsershift();
        const std::vector<int> ends = writingEnds();
        return std::to_string(ends.size()) + (ends.at(0) > STDERR_FILENO ? " above" : " below");
    });
    EXPECT_EQ(outcome.result, "1 above");
    EXPECT_EQ(reader.text(), "usershift: 1000 staff\n");
}

TEST_F(Usershift, HoldsTwoBlanksWhenNoOwnerIsConfigured) {
    makeFifo(fifoPath);
    FifoReader reader(fifoPath);
    runInChild([] { sendUsershift(); });
    EXPECT_EQ(reader.text(), "usershift:  \n");
}

TEST_F(Usershift, IsLostInSilenceWithoutAReader) {
    makeFifo(fifoPath);
    sendUsershift();
    EXPECT_EQ(logText(), "");
    FifoReader reader(fifoPath);
    EXPECT_EQ(reader.text(), "");
}

TEST_F(Usershift, DoesNothingWhenThePipeIsAbsent) {
    sendUsershift();
    EXPECT_FALSE(exists(fifoPath));
    EXPECT_EQ(logText(), "");
}
