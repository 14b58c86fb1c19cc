// The transfer cycle, with a scripted copy program.
#include "daemon/global.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/copy_bed.h"
#include "tests/unit/support/faults.h"
#include "tests/unit/support/fifo_reader.h"
#include "tests/unit/support/waiting.h"
#include "transfer/file_lists.h"
#include "utilities/text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

class TransferCycle : public CopyBed {
protected:
    /// The copy command of a file list as it is logged and run.
    std::string commandOf(const std::string& listName) const {
        return GLOBAL::rsyncCommand + " " + GLOBAL::rsyncOptions +
               " --password-file=" + GLOBAL::passwordFile + " --files-from=" + listName +
               " rsync://root@127.0.0.1:49371/ramdisk/data/ " + targetPath + "/./";
    }

    /// The log with everything that the evaluators wrote taken out, of which there must be `count`
    /// whole blocks: they come when they come.
    std::string withoutEvaluators(std::size_t count) const {
        std::string text = logText();
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_TRUE(takeOut(text, "++ Warning: No pipe to VANTREL\n"));
            const std::size_t begin = text.find(blockBegin);
            const std::size_t end = text.find(blockEnd);
            if (begin == std::string::npos || end == std::string::npos) {
                ADD_FAILURE() << "no block of an evaluator in the log";
                break;
            }
            text.erase(begin, end + blockEnd.size() - begin);
        }
        return text;
    }

    /// The process IDs that the copies noted in the file "pids", in no order.
    std::vector<std::string> notedPids() const { return linesOf(readFile(scratch / "pids")); }

    bool awaitNotedPids(std::size_t count) const {
        return waitUntil([&] { return notedPids().size() >= count; });
    }

    const std::string self = std::to_string(getpid()) + "\n";
    const std::string blockBegin = "++ RSYNC OUTPUT BEGIN ++++++++++++++++++\n";
    const std::string blockEnd = "++ RSYNC OUTPUT END ++++++++++++++++++++\n";
    /// Copy body: notes its process ID and holds on.
    const std::string noteAndHold = "echo $$ >>$bed/pids\n" + std::string(holdUntilGo);
};

/// The two lines that come out first in every log of these tests: one separator for each cycle
/// before the one that ends a line.
std::string separators(const char* separator, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += separator;
    }
    return text;
}

/// Lines of `text` that hold `part`.
std::vector<std::string> linesWith(const std::string& text, const std::string& part) {
    std::vector<std::string> found;
    for (const std::string& line : linesOf(text)) {
        if (line.find(part) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

std::vector<std::string> sorted(std::vector<std::string> lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
}

/// Ignores a signal while it exists.
class IgnoredSignal {
public:
    explicit IgnoredSignal(int signalNumber)
        : number(signalNumber), before(signal(signalNumber, SIG_IGN)) {}
    ~IgnoredSignal() { signal(number, before); }
    IgnoredSignal(const IgnoredSignal&) = delete;
    IgnoredSignal& operator=(const IgnoredSignal&) = delete;

private:
    int number;
    void (*before)(int);
};

/// True while a thread of this process sleeps in this system call.
bool sleepsIn(pid_t thread, long systemCall) {
    const std::string call = readFile("/proc/self/task/" + std::to_string(thread) + "/syscall");
    return UTILITIES::stringBegin(call, std::to_string(systemCall) + " ");
}

} // namespace

TEST_F(TransferCycle, ListsAgainAfterTheMinimumPauseWhenOnlyTheDirectoryIsListed) {
    OpenWorker& worker = makeWorker("1", "127.0.0.1", 700);
    serve({"."});
    const FAULTS::SleepRecorder recorder;
    runUntil(worker, [this] { return listings() >= 3; });
    EXPECT_EQ(logText(), "");
    EXPECT_FALSE(exists("/var/run/skarn_orbelin.pid"));
    ASSERT_EQ(recorder.sleeps().size(), 2 * listings());
    for (std::size_t i = 0; i < recorder.sleeps().size(); i += 2) {
        EXPECT_EQ(recorder.sleeps()[i].nanoseconds, 500000000);
        EXPECT_EQ(recorder.sleeps()[i + 1].nanoseconds, 200000000);
    }
}

TEST_F(TransferCycle, TellsThatItRunsAndEndsWhenItIsToldToStop) {
    OpenWorker& worker = makeWorker();
    EXPECT_FALSE(worker.isRunning());
    startAndAwait(worker);
    EXPECT_TRUE(worker.isRunning());
    stopAndJoin(worker);
    EXPECT_FALSE(worker.isRunning());
}

TEST_F(TransferCycle, ForgetsARequestToStopThatCameBeforeItRan) {
    OpenWorker& worker = makeWorker();
    worker.stop(false);
    startAndAwait(worker);
    EXPECT_TRUE(waitUntil([this] { return listings() >= 3; }));
    EXPECT_TRUE(worker.isRunning());
}

TEST_F(TransferCycle, ListsTheShareThroughTheShell) {
    OpenWorker& worker = makeWorker();
    runUntil(worker, [this] { return listings() >= 1; });
    EXPECT_EQ(linesOf(readFile(scratch / "listings.127.0.0.1")).at(0),
              "-mrlDHW --list-only --exclude=**.tmp --password-file=" + GLOBAL::passwordFile +
                  " rsync://root@127.0.0.1:49371/ramdisk/data/");
}

TEST_F(TransferCycle, KeepsTheListingsComplaintsInAFileOfTheirOwn) {
    writeScript(GLOBAL::rsyncCommand,
                "echo refused >&2\necho listed >>" + scratch.path() + "/listings.127.0.0.1\n");
    OpenWorker& worker = makeWorker();
    runUntil(worker, [this] { return listings() >= 1; });
    EXPECT_EQ(readFile("/tmp/skarn_error.log"), "refused\n");
    EXPECT_EQ(logText(), "");
}

TEST_F(TransferCycle, WritesItsLogToTheByte) {
    copyBody("echo $$ >$bed/pids\nwhile read -r name; do echo \"SENT: $name\"; "
             "echo \"CONFIRMED: removed $name\"; done <$list\necho other output\n");
    OpenWorker& worker = makeWorker("det_1");
    serve({".", "run", "run/a", "run/b"});
    const std::string list = fileListName(0);
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 1; });
    const std::string pid = notedPids().at(0);

    EXPECT_THAT(logText(),
                HasSubstr(blockBegin + "other output\n" +
                          "Copied 2 files in the range of: run/a ... run/b\n" + blockEnd));
    EXPECT_EQ(withoutEvaluators(1), std::string(separator) +
                                        "det_1 Starting 1 copy processes\n"
                                        "det_1: rsync call: " +
                                        commandOf(list) +
                                        "\n"
                                        "det_1: Child process " +
                                        pid +
                                        " terminated \n"
                                        "det_1: Removed file " +
                                        list + "\n");
}

TEST_F(TransferCycle, PilesUpTheSeparatorsOfEmptyCyclesInFrontOfTheNextLine) {
    OpenWorker& worker = makeWorker();
    bool served = false;
    runUntil(worker, [&] {
        if (!served && listings() >= 4) {
            EXPECT_EQ(logText(), "");
            serve({"a"});
            served = true;
        }
        return countOf(logText(), "Removed file") == 1;
    });
    // The number of the listing that found something.
    const std::size_t cycles = std::stoul(readFile(scratch / "served_at"));
    EXPECT_GE(cycles, 4U);
    EXPECT_THAT(logText(),
                StartsWith(separators(separator, cycles) + "1 Starting 1 copy processes\n"));
    EXPECT_EQ(countOf(logText(), separator), cycles);
}

TEST_F(TransferCycle, CreatesTheTargetInEveryCycle) {
    OpenWorker& worker = makeWorker();
    startAndAwait(worker);
    EXPECT_TRUE(waitUntil([this] { return exists(targetPath); }));
    ASSERT_EQ(rmdir(targetPath.c_str()), 0);
    EXPECT_TRUE(waitUntil([this] { return exists(targetPath); }));
}

TEST_F(TransferCycle, GivesTheTargetToTheOwnerWhenThereIsAUserDirectory) {
    GLOBAL::uid = "12345";
    GLOBAL::gid = "23456";
    GLOBAL::usrdir = "set";
    OpenWorker& worker = makeWorker();
    runUntil(worker, [this] { return listings() >= 1; });
    struct stat status = {};
    ASSERT_EQ(stat(targetPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 12345U);
    EXPECT_EQ(status.st_gid, 23456U);
}

TEST_F(TransferCycle, LeavesTheTargetsOwnerWhenThereIsNoUserDirectory) {
    GLOBAL::uid = "12345";
    GLOBAL::gid = "23456";
    OpenWorker& worker = makeWorker();
    runUntil(worker, [this] { return listings() >= 1; });
    struct stat status = {};
    ASSERT_EQ(stat(targetPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, getuid());
    EXPECT_EQ(status.st_gid, getgid());
}

TEST_F(TransferCycle, GivesTheCopyProcessItsArguments) {
    copyBody("for argument; do echo \"$argument\"; done >$bed/arguments\n");
    OpenWorker& worker = makeWorker();
    serve({"a"});
    const std::string list = fileListName(0);
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 1; });
    EXPECT_EQ(readFile(scratch / "arguments"),
              "-vthlDHW\n--remove-source-files\n--numeric-ids\n--confirm-files\n"
              "--out-format=SENT: %n\n--password-file=" +
                  GLOBAL::passwordFile + "\n--files-from=" + list +
                  "\nrsync://root@127.0.0.1:49371/ramdisk/data/\n" + targetPath + "/./\n");
}

TEST_F(TransferCycle, DealsTheNamesToTheFileListsInTurn) {
    copyBody("cp $list $bed/list${list##*_}\n");
    OpenWorker& worker = makeWorker();
    const std::vector<std::string> names = numbered("frame", 203);
    serve(names);
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 3; });
    std::string expected[3];
    for (std::size_t k = 0; k < names.size(); ++k) {
        expected[k % 3] += names[k] + "\n";
    }
    EXPECT_EQ(readFile(scratch / "list0"), expected[0]);
    EXPECT_EQ(readFile(scratch / "list1"), expected[1]);
    EXPECT_EQ(readFile(scratch / "list2"), expected[2]);
    EXPECT_THAT(logText(), HasSubstr("1 Starting 3 copy processes\n"));
}

TEST_F(TransferCycle, WritesAllListsBeforeTheFirstCopyStarts) {
    // The pause gives the first one time to look before the second one is started.
    copyBody("if [ ! -e $bed/seen ]; then cat ${list%_*}_0 ${list%_*}_1 ${list%_*}_2 >$bed/part; "
             "mv $bed/part $bed/seen; fi\n");
    OpenWorker& worker = makeWorker("1", "127.0.0.1", 1, 300);
    const std::vector<std::string> names = numbered("frame", 203);
    serve(names);
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 3; });
    std::string expected;
    for (std::size_t list = 0; list < 3; ++list) {
        for (std::size_t k = list; k < names.size(); k += 3) {
            expected += names[k] + "\n";
        }
    }
    EXPECT_EQ(readFile(scratch / "seen"), expected);
}

TEST_F(TransferCycle, StartsNoMoreCopiesThanTheSettingAllows) {
    GLOBAL::numberOfProcesses = 2;
    OpenWorker& worker = makeWorker();
    serve(numbered("frame", 1000));
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 2; });
    EXPECT_THAT(logText(), HasSubstr("1 Starting 2 copy processes\n"));
    EXPECT_THAT(linesWith(logText(), ": rsync call: "), SizeIs(2));
}

TEST_F(TransferCycle, TakesASettingOfZeroCopiesAsOne) {
    GLOBAL::numberOfProcesses = 0;
    OpenWorker& worker = makeWorker();
    serve(numbered("frame", 300));
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 1; });
    EXPECT_THAT(logText(), HasSubstr("Copied 300 files in the range of: frame0 ... frame299\n"));
}

TEST_F(TransferCycle, PausesBetweenTheStartsOfCopiesAndNotBehindTheLast) {
    OpenWorker& worker = makeWorker("1", "127.0.0.1", 7, 30);
    serve(numbered("frame", 203));
    const FAULTS::SleepRecorder recorder;
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 3; });
    ASSERT_GE(recorder.sleeps().size(), 2U);
    EXPECT_EQ(recorder.sleeps()[0].nanoseconds, 30000000);
    EXPECT_EQ(recorder.sleeps()[1].nanoseconds, 30000000);
    for (std::size_t i = 2; i < recorder.sleeps().size(); ++i) {
        EXPECT_EQ(recorder.sleeps()[i].nanoseconds, 7000000);
    }
}

TEST_F(TransferCycle, StartsTheNextCycleAtOnceAfterCopying) {
    // The first copy serves a second listing.
    copyBody("mv $bed/next $bed/serve.127.0.0.1 2>/dev/null\ncat $list >>$bed/copied\n");
    writeFile(scratch / "next", "-rw-r--r-- 1 2026/01/02 03:04:05 second\n");
    OpenWorker& worker = makeWorker("1", "127.0.0.1", 10);
    serve({"first"});
    const FAULTS::SleepRecorder recorder;
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 2; });
    EXPECT_EQ(readFile(scratch / "copied"), "first\nsecond\n");
    // Every listing but the two that found something is followed by a pause.
    EXPECT_EQ(recorder.sleeps().size(), listings() - 2);
}

TEST_F(TransferCycle, ListsNamesOfAnEarlierCycleAnew) {
    copyBody("cat $list >>$bed/copied\n");
    OpenWorker& worker = makeWorker();
    serve({"dir", "a"});
    startAndAwait(worker);
    ASSERT_TRUE(awaitRemovedLists(1));
    // "dir" is not dropped for what an earlier listing held.
    serve({"x", "dir/b"});
    ASSERT_TRUE(awaitRemovedLists(2));
    EXPECT_EQ(readFile(scratch / "copied"), "dir\na\nx\ndir/b\n");
}

TEST_F(TransferCycle, RecordsItsCopiesInThePidFileWhileTheyRun) {
    copyBody(noteAndHold);
    OpenWorker& worker = makeWorker();
    serve(numbered("frame", 203));
    startAndAwait(worker);
    ASSERT_TRUE(awaitNotedPids(3));
    ASSERT_TRUE(waitUntil([this] { return linesOf(pidFile()).size() == 4; }));
    EXPECT_THAT(pidFile(), StartsWith(self));
    std::vector<std::string> recorded = linesOf(pidFile());
    recorded.erase(recorded.begin());
    EXPECT_EQ(sorted(recorded), sorted(notedPids()));
    worker.lock();
    EXPECT_THAT(worker.pidList(), SizeIs(3));
    worker.unlock();

    writeFile(scratch / "go", "");
    ASSERT_TRUE(awaitRemovedLists(3));
    EXPECT_EQ(pidFile(), self);
    worker.lock();
    EXPECT_THAT(worker.pidList(), IsEmpty());
    worker.unlock();
    stopAndJoin(worker);
    EXPECT_THAT(worker.evaluators, Each(nullptr));
}

TEST_F(TransferCycle, LogsTheEndOfEachCopyAndOfNothingElse) {
    copyBody("echo $$ >>$bed/pids\n");
    OpenWorker& worker = makeWorker();
    serve(numbered("frame", 203));
    startAndAwait(worker);
    ASSERT_TRUE(awaitRemovedLists(3));
    stopAndJoin(worker);
    std::vector<std::string> expected;
    for (const std::string& pid : notedPids()) {
        expected.push_back("1: Child process " + pid + " terminated ");
    }
    ASSERT_THAT(expected, SizeIs(3));
    EXPECT_EQ(sorted(linesWith(logText(), "Child process")), sorted(expected));
}

TEST_F(TransferCycle, GoesOnWithTheOtherSlotsWhenAForkFails) {
    copyBody(noteAndHold);
    OpenWorker& worker = makeWorker();
    FAULTS::fork.failAfter(1, EAGAIN);
    serve(numbered("frame", 203));
    startAndAwait(worker);
    ASSERT_TRUE(awaitNotedPids(2));
    ASSERT_TRUE(waitUntil([this] { return linesOf(pidFile()).size() >= 3; }));
    std::vector<std::string> recorded = linesOf(pidFile());
    EXPECT_EQ(recorded.at(0) + "\n", self);
    recorded.erase(recorded.begin());
    EXPECT_EQ(sorted(recorded), sorted(notedPids()));

    writeFile(scratch / "go", "");
    ASSERT_TRUE(awaitRemovedLists(3));
    EXPECT_THAT(notedPids(), SizeIs(2));
    EXPECT_EQ(countOf(logText(), "1: Error: Could not fork subprocess\n"
                                 "       Resource temporarily unavailable\n"),
              1U);
    // It comes behind the second call.
    EXPECT_THAT(withoutEvaluators(2),
                HasSubstr("_1 rsync://root@127.0.0.1:49371/ramdisk/data/ " + targetPath +
                          "/./\n1: Error: Could not fork subprocess\n"));
    EXPECT_EQ(countOf(logText(), blockBegin), 2U);
}

TEST_F(TransferCycle, PausesBehindAFailedStartToo) {
    OpenWorker& worker = makeWorker("1", "127.0.0.1", 7, 30);
    FAULTS::fork.failAfter(1, EAGAIN);
    serve(numbered("frame", 203));
    const FAULTS::SleepRecorder recorder;
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 3; });
    ASSERT_GE(recorder.sleeps().size(), 2U);
    EXPECT_EQ(recorder.sleeps()[0].nanoseconds, 30000000);
    EXPECT_EQ(recorder.sleeps()[1].nanoseconds, 30000000);
}

TEST_F(TransferCycle, GoesOnWhenAPipeCannotBeHad) {
    copyBody("cat $list >$bed/copied\n");
    OpenWorker& worker = makeWorker();
    FAULTS::pipe2.failAfter(0, EMFILE);
    serve({"a", "b"});
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 1; });
    EXPECT_FALSE(exists(scratch / "copied"));
    EXPECT_THAT(logText(), HasSubstr("/./\n1: Error: Could not fork subprocess\n"
                                     "          Too many open files\n"
                                     "1: Removed file "));
    EXPECT_EQ(countOf(logText(), blockBegin), 0U);
    EXPECT_EQ(pidFile(), self);
}

TEST_F(TransferCycle, LogsAListingThatCannotBeStartedAndGoesOn) {
    OpenWorker& worker = makeWorker("1", "127.0.0.1", 7);
    FAULTS::popen.failAfter(0, EMFILE);
    const FAULTS::SleepRecorder recorder;
    runUntil(worker, [this] { return listings() >= 1; });
    EXPECT_EQ(logText(), std::string(separator) + "1: Error: Listing failed\n");
    EXPECT_EQ(recorder.sleeps().size(), listings() + 1);
}

TEST_F(TransferCycle, ReadsTheReportItselfWhenNoThreadCanBeHad) {
    makeFifo(scratch / "fifo");
    GLOBAL::pathToVantrelFifo = scratch / "fifo";
    FifoReader consumer(GLOBAL::pathToVantrelFifo);
    OpenWorker& worker = makeWorker();
    // On the test's own thread, so that the evaluator's is the first to be started.
    FAULTS::pthreadCreate.failAfter(0, EAGAIN);
    serve({"a", "b"});
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 1; });
    EXPECT_EQ(consumer.text(), targetPath + "/./a\n" + targetPath + "/./b\n");
    EXPECT_THAT(logText(),
                HasSubstr(blockBegin + "Copied 2 files in the range of: a ... b\n" + blockEnd));
    EXPECT_THAT(worker.evaluators, ElementsAre(nullptr));
}

TEST_F(TransferCycle, RecordsACopyOfWhichItReadsTheReportItself) {
    copyBody("i=0; until grep -qx $$ /var/run/skarn_orbelin.pid || [ $i -ge 1000 ]; do\n"
             "sleep 0.01; i=$((i + 1)); done\n"
             "if [ ! -e $bed/recorded ]; then echo $$ >$bed/pid\n"
             "cat /var/run/skarn_orbelin.pid >$bed/recorded; fi\n");
    OpenWorker& worker = makeWorker();
    FAULTS::pthreadCreate.failAfter(0, EAGAIN);
    // The slots of two more are still empty then.
    serve(numbered("frame", 203));
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 3; });
    EXPECT_EQ(readFile(scratch / "recorded"), self + readFile(scratch / "pid"));
    EXPECT_EQ(pidFile(), self);
}

TEST_F(TransferCycle, SeesACopyThatCannotBeExecutedAsOneThatEnds) {
    // The listing takes the program away.
    writeScript(GLOBAL::rsyncCommand, "rm $0\necho listed >>" + scratch.path() +
                                          "/listings.127.0.0.1\necho '- 1 d t name'\n");
    OpenWorker& worker = makeWorker();
    const std::string list = fileListName(0);
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 1; });
    EXPECT_EQ(linesWith(logText(), " terminated ").size(), 1U);
    EXPECT_EQ(countOf(logText(), blockBegin + blockEnd), 1U);
    EXPECT_THAT(logText(), HasSubstr("1: Removed file " + list + "\n"));
}

TEST_F(TransferCycle, LogsAFileListThatItCannotRemove) {
    copyBody("rm $list\n");
    OpenWorker& worker = makeWorker();
    serve({"a"});
    const std::string list = fileListName(0);
    const std::string expected =
        "1: Error: could not remove " + list + "\n   No such file or directory\n";
    runUntil(worker, [&] { return countOf(logText(), expected) == 1; });
    EXPECT_EQ(countOf(logText(), "Removed file"), 0U);
}

TEST_F(TransferCycle, RemovesItsFileLists) {
    OpenWorker& worker = makeWorker();
    serve(numbered("frame", 203));
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 3; });
    for (const std::string& name : namesIn("/tmp")) {
        EXPECT_EQ(name.find("file_list_"), std::string::npos) << name;
    }
}

TEST_F(TransferCycle, StopsOnlyWhenItsCopiesHaveEndedAndItHasCleanedUp) {
    copyBody(noteAndHold);
    OpenWorker& worker = makeWorker();
    serve({"a"});
    startAndAwait(worker);
    ASSERT_TRUE(awaitNotedPids(1));
    ASSERT_TRUE(waitUntil([this] { return linesOf(pidFile()).size() == 2; }));
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        stopAndJoin(worker);
        stopped = true;
    });
    EXPECT_TRUE(waitUntil([&] { return worker.stopRequested.load(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(stopped);
    EXPECT_TRUE(worker.isRunning());
    EXPECT_EQ(countOf(logText(), "terminated"), 0U);

    const std::size_t listed = listings();
    writeFile(scratch / "go", "");
    stopper.join();
    EXPECT_FALSE(worker.isRunning());
    EXPECT_EQ(countOf(logText(), " terminated \n"), 1U);
    EXPECT_EQ(countOf(logText(), blockBegin), 1U);
    EXPECT_EQ(countOf(logText(), "Removed file"), 1U);
    EXPECT_EQ(pidFile(), self);
    EXPECT_EQ(listings(), listed) << "it must not have begun another cycle";
}

TEST_F(TransferCycle, DoesNotReapTheChildrenOfOtherThreads) {
    const pid_t own = fork();
    if (own == 0) {
        _exit(7);
    }
    ASSERT_GT(own, 0);
    // It has ended and waits to be reaped while the worker waits for its copy.
    siginfo_t information = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(own), &information, WEXITED | WNOWAIT), 0);
    OpenWorker& worker = makeWorker();
    serve({"a"});
    startAndAwait(worker);
    ASSERT_TRUE(awaitRemovedLists(1));
    stopAndJoin(worker);
    int status = 0;
    EXPECT_EQ(waitpid(own, &status, WNOHANG), own);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
    EXPECT_EQ(countOf(logText(), "Child process " + std::to_string(own)), 0U);
}

TEST_F(TransferCycle, LeavesNoChildBehind) {
    OpenWorker& worker = makeWorker();
    serve(numbered("frame", 203));
    // Not until a listing without copies has come and gone.
    runUntil(worker, [this] {
        return countOf(logText(), "Removed file") == 3 &&
               listings() > std::stoul(readFile(scratch / "served_at")) + 1;
    });
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(TransferCycle, EndsItsWaitWhenTheSystemReapsTheCopiesItself) {
    // That is so when the one who started the daemon ignores SIGCHLD.
    const ChildOutcome outcome = runInChild([this] {
        signal(SIGCHLD, SIG_IGN);
        OpenWorker& worker = makeWorker();
        serve(numbered("frame", 203));
        runUntil(worker, [this] { return countOf(logText(), "Removed file") == 3; });
        deleteWorkers();
        return std::string(pidFile() == std::to_string(getpid()) + "\n" ? "done" : pidFile());
    });
    EXPECT_TRUE(outcome.ended);
    EXPECT_EQ(outcome.result, "done");
    EXPECT_EQ(countOf(logText(), blockBegin), 3U);
}

TEST_F(TransferCycle, RecordsTheCopiesOfAllWorkersInThePidFile) {
    copyBody("echo $$ >>$bed/pids\ni=0\n"
             "while [ ! -e $bed/go.$address ] && [ ! -e $bed/go ] && [ $i -lt 6000 ]; do\n"
             "sleep 0.01; i=$((i + 1)); done\n");
    // The copy knows whose it is by the share it is given.
    writeScript(GLOBAL::rsyncCommand,
                readFile(GLOBAL::rsyncCommand)
                    .replace(0, 10,
                             "for argument; do case $argument in rsync://*) "
                             "address=${argument#*@}; address=${address%%:*} ;; esac; done\n"));
    OpenWorker& first = makeWorker("A", "127.0.0.1");
    OpenWorker& second = makeWorker("B", "127.0.0.2");
    serve(numbered("a", 203), "127.0.0.1");
    serve(numbered("b", 102), "127.0.0.2");
    startAndAwait(first, "127.0.0.1");
    startAndAwait(second, "127.0.0.2");
    ASSERT_TRUE(awaitNotedPids(5));
    ASSERT_TRUE(waitUntil([this] { return linesOf(pidFile()).size() == 6; }));
    first.lock();
    std::string expected = self;
    for (const Worker* worker : Worker::workers) {
        for (const int pid : worker->pidList()) {
            expected += std::to_string(pid) + "\n";
        }
    }
    EXPECT_EQ(pidFile(), expected);
    std::string secondOnly = self;
    for (const int pid : second.pidList()) {
        secondOnly += std::to_string(pid) + "\n";
    }
    first.unlock();

    writeFile(scratch / "go.127.0.0.1", "");
    ASSERT_TRUE(awaitRemovedLists(3));
    EXPECT_EQ(pidFile(), secondOnly);
    EXPECT_EQ(countOf(logText(), "\nB: Child process"), 0U);
    EXPECT_EQ(countOf(logText(), "A: Child process"), 3U);
    writeFile(scratch / "go.127.0.0.2", "");
    ASSERT_TRUE(awaitRemovedLists(5));
    EXPECT_EQ(pidFile(), self);
    EXPECT_EQ(countOf(logText(), "B: Child process"), 2U);
}

TEST_F(TransferCycle, MayHaveItsPidsReadAtAnyTimeUnderTheLock) {
    // For the thread sanitizer above all: two workers come and go while a third thread looks.
    OpenWorker& first = makeWorker("A", "127.0.0.1");
    OpenWorker& second = makeWorker("B", "127.0.0.2");
    startAndAwait(first, "127.0.0.1");
    startAndAwait(second, "127.0.0.2");
    std::atomic<bool> done{false};
    std::size_t most = 0;
    std::thread looker([&] {
        while (!done) {
            first.lock();
            std::size_t count = 0;
            for (const Worker* worker : Worker::workers) {
                count += worker->pidList().size();
            }
            first.unlock();
            most = std::max(most, count);
        }
    });
    for (std::size_t round = 1; round <= 3; ++round) {
        serve(numbered("a", 203), "127.0.0.1");
        serve(numbered("b", 203), "127.0.0.2");
        EXPECT_TRUE(awaitRemovedLists(6 * round));
    }
    done = true;
    looker.join();
    EXPECT_GT(most, 0U);
    EXPECT_LE(most, 6U);
}

TEST_F(TransferCycle, RecordsTheEndOfItsCopiesUnderTheLockOnly) {
    copyBody(noteAndHold);
    OpenWorker& worker = makeWorker();
    serve(numbered("frame", 203));
    std::atomic<pid_t> thread{0};
    std::thread running([&] {
        thread = gettid();
        worker.run();
    });
    EXPECT_TRUE(awaitNotedPids(3));
    EXPECT_TRUE(waitUntil([&] { return sleepsIn(thread, SYS_wait4); }));
    {
        // The system reaps the copies itself, so that the worker learns of their end without the
        // lock, and the second update of the PID file is the next thing that takes it.
        const IgnoredSignal ignored(SIGCHLD);
        const std::string recorded = pidFile();
        worker.lock();
        writeFile(scratch / "go", "");
        EXPECT_TRUE(waitUntil([&] { return sleepsIn(thread, SYS_futex); }));
        EXPECT_EQ(linesOf(recorded).size(), 4U);
        EXPECT_EQ(pidFile(), recorded);
        EXPECT_EQ(worker.pidList().size(), 3U);
        worker.unlock();
        EXPECT_TRUE(awaitRemovedLists(3));
    }
    EXPECT_EQ(pidFile(), self);
    worker.stop(false);
    running.join();
}

TEST_F(TransferCycle, CarriesOnWhenThePidFileCannotBeWritten) {
    ASSERT_EQ(mkdir("/var/run/skarn_orbelin.pid", 0755), 0);
    OpenWorker& worker = makeWorker();
    serve({"a"});
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 1; });
    EXPECT_THAT(logText(), HasSubstr("Copied 1 files in the range of: a ... a\n"));
    EXPECT_TRUE(namesIn("/var/run/skarn_orbelin.pid").empty());
}

TEST_F(TransferCycle, StartsTheCopyOnAListThatCouldNotBeWritten) {
    copyBody("echo \"$list\" >$bed/given\n");
    OpenWorker& worker = makeWorker();
    const std::string list = fileListName(0);
    ASSERT_EQ(mkdir(list.c_str(), 0755), 0);
    serve({"a"});
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 1; });
    EXPECT_EQ(readFile(scratch / "given"), list + "\n");
    EXPECT_FALSE(exists(list));
}

TEST_F(TransferCycle, RotatesTheLogAtTheHeadOfACycle) {
    GLOBAL::logFileMaxSize = 20;
    GLOBAL::logFileMaxNumber = 1;
    writeFile(logPath, std::string(21, 'x'));
    writeFile(logPath + ".0", "zero");
    writeFile(logPath + ".1", "one");
    OpenWorker& worker = makeWorker();
    runUntil(worker, [this] { return listings() >= 2; });
    EXPECT_EQ(readFile(logPath + ".0"), std::string(21, 'x'));
    EXPECT_EQ(readFile(logPath + ".1"), "zero");
    EXPECT_FALSE(exists(logPath));
}

TEST_F(TransferCycle, KeepsALogThatIsNotTooLarge) {
    GLOBAL::logFileMaxSize = 20;
    writeFile(logPath, std::string(20, 'x'));
    OpenWorker& worker = makeWorker();
    runUntil(worker, [this] { return listings() >= 2; });
    EXPECT_EQ(readFile(logPath), std::string(20, 'x'));
}

TEST_F(TransferCycle, DropsTheRestOfALongListingLine) {
    copyBody("cat $list >$bed/copied\n");
    OpenWorker& worker = makeWorker();
    const std::string longLine = "-rw-r--r-- 1 2026/01/02 03:04:05 " + std::string(2000, 'x');
    serveText(longLine + "\n-rw-r--r-- 1 2026/01/02 03:04:05 next\n");
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 1; });
    EXPECT_EQ(readFile(scratch / "copied"), longLine.substr(33, 1023 - 33) + "\nnext\n");
}

TEST_F(TransferCycle, HandsEveryConfirmedFileToTheConsumer) {
    makeFifo(scratch / "fifo");
    GLOBAL::pathToVantrelFifo = scratch / "fifo";
    FifoReader consumer(GLOBAL::pathToVantrelFifo);
    OpenWorker& worker = makeWorker();
    const std::vector<std::string> names = numbered("run/frame", 203);
    serve(names);
    runUntil(worker, [this] { return countOf(logText(), "Removed file") == 3; });
    std::vector<std::string> expected;
    expected.reserve(names.size());
    for (const std::string& name : names) {
        expected.push_back(targetPath + "/./" + name);
    }
    EXPECT_EQ(sorted(linesOf(consumer.text())), sorted(expected));
    EXPECT_EQ(countOf(logText(), "No pipe"), 0U);
}

TEST_F(TransferCycle, HoldsTheStandardDescriptorsWhileItStartsAChildThroughTheShell) {
    const ChildOutcome outcome = runInChild([this] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        OpenWorker& worker = makeWorker();
        runUntil(worker, [this] { return listings() >= 1; });
        deleteWorkers();
        return std::string(FAULTS::lowestFreeAtSystem > STDERR_FILENO ? "above" : "below") +
               (FAULTS::lowestFreeAtPopen > STDERR_FILENO ? " above" : " below");
    });
    EXPECT_EQ(outcome.result, "above above");
}

TEST_F(TransferCycle, WorksWithTheStandardDescriptorsClosed) {
    // Nothing of the daemon's may be open as 0, 1 or 2 when a child starts: the complaint of mkdir
    // would go there, and the consumer's pipe would be taken for absent.
    makeFifo(scratch / "fifo");
    GLOBAL::pathToVantrelFifo = scratch / "fifo";
    FifoReader consumer(GLOBAL::pathToVantrelFifo);
    writeFile(scratch / "file", "untouched");
    copyBody("echo complaint >&2\ncp $list $bed/list\n"
             "while read -r name; do echo \"CONFIRMED: x $name\"; done <$list\n"
             "exec ls /proc/self/fd\n");
    const ChildOutcome outcome = runInChild([this] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        OpenWorker& worker = makeWorker();
        worker.setTarget(scratch / "file/below");
        serve({"a", "b"});
        runUntil(worker, [this] { return countOf(logText(), "Removed file") == 1; });
        deleteWorkers();
        const std::vector<int> left = openDescriptors();
        return std::string(left.empty() || left.front() > STDERR_FILENO ? "free" : "taken");
    });
    EXPECT_EQ(outcome.result, "free");
    EXPECT_EQ(outcome.errorOutput, "");
    EXPECT_EQ(consumer.text(),
              scratch.path() + "/file/below/./a\n" + scratch.path() + "/file/below/./b\n");
    // 0 is what ls itself opened: the lowest free number.
    EXPECT_THAT(logText(), HasSubstr(blockBegin + "complaint\n0\n1\n2\nCopied 2 files"));
    EXPECT_EQ(readFile(scratch / "list"), "a\nb\n");
    EXPECT_EQ(countOf(logText(), "mkdir"), 0U);
    EXPECT_EQ(readFile(scratch / "file"), "untouched");
}
