// Detaching, announcing the start, and running the workers.
#include "daemon/daemon.h"
#include "daemon/global.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/configured_test.h"
#include "tests/unit/support/faults.h"
#include "tests/unit/support/fifo_reader.h"
#include "tests/unit/support/waiting.h"
#include "transfer/worker.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::HasSubstr;
using testing::SizeIs;

namespace {

constexpr const char* pidPath = "/var/run/skarn_orbelin.pid";
constexpr const char* statusPath = "/var/run/skarn_orbelin.stat";

/// A worker that does what a test tells it, once.
class BriefWorker : public Worker {
public:
    BriefWorker(const std::string& id, std::function<void()> bodyOfThread)
        : Worker(id, "", "", "", 0, 0), body(std::move(bodyOfThread)) {}
    void run() override { body(); }

private:
    std::function<void()> body;
};

class DaemonStart : public ConfiguredTest {
protected:
    /// Configures a daemon, lets `prepare` change it, and starts it. Returns how the process that
    /// was called ended; `daemons` holds the one that it left behind. What `look` gives in the
    /// daemon after `start` has returned is the result.
    template<typename Prepare, typename Look>
    ChildOutcome start(const Prepare& prepare, const Look& look) {
        return runInChild(
            [&]() -> std::string {
                Daemon daemon;
                prepare(daemon);
                daemon.start();
                // Whatever is not given back here would count as a leak.
                deleteWorkers();
                return look();
            },
            &daemons);
    }

    ChildOutcome start() {
        return start([](Daemon&) {}, [] { return std::string("came back"); });
    }

    /// Expects that the caller got away with 0 and a daemon ended with `value`.
    void expectDaemonEnd(const ChildOutcome& outcome, int value) {
        EXPECT_EQ(outcome.status(), 0);
        EXPECT_EQ(outcome.exitValue(), 0);
        ASSERT_THAT(daemons, SizeIs(1));
        EXPECT_TRUE(WIFEXITED(daemons[0].waitStatus));
        EXPECT_EQ(WEXITSTATUS(daemons[0].waitStatus), value);
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errorOutput, "");
    }

    /// The whole log of a start, with its date cut out and left in `date`.
    std::string logWithoutDate() {
        std::string text = logText();
        const std::string before = "++ on ";
        const std::size_t at = text.find(before);
        if (at == std::string::npos) {
            return text;
        }
        const std::size_t begin = at + before.size();
        const std::size_t end = text.find('\n', begin);
        date = text.substr(begin, end - begin);
        return text.erase(begin, end - begin);
    }

    /// The log of a start without detectors, without its date.
    std::string startText(const std::string& maxSize = "10485760",
                          const std::string& maxNumber = "10") const {
        const std::string rule(78, '+');
        return "\n\n\n\n" + rule +
               "\n\n"
               "++ skarn 3.7.1 started\n"
               "++ on \n"
               "\n" +
               rule +
               "\n"
               "\n\n\n\n"
               "++\n"
               "++ settings:\n"
               "++ ---------\n"
               "++\n"
               "++ logfile: " +
               logPath +
               "\n"
               "++    max size of logfile: " +
               maxSize +
               "\n"
               "++    max # of backuped logfiles: " +
               maxNumber +
               "\n"
               "\n"
               "++ current directory: /\n"
               "++\n"
               "++\n";
    }

    std::vector<Orphan> daemons;
    std::string date;
};

} // namespace

TEST_F(DaemonStart, EndsAtOnceWith0WithoutDetectors) {
    const ChildOutcome outcome = start();
    expectDaemonEnd(outcome, 0);
    EXPECT_EQ(outcome.result, "came back");
    EXPECT_EQ(logWithoutDate(), startText());
}

TEST_F(DaemonStart, WritesTheSettingsItHas) {
    configure({"logfile_max_size 2G", "logfile_max_number -1"});
    start();
    EXPECT_EQ(logWithoutDate(), startText("-2147483648", "-1"));
}

TEST_F(DaemonStart, WritesTheDateAtWhichItDetached) {
    time_t before = 0;
    const ChildOutcome outcome = start(
        [&before](Daemon&) {
            // Not in the second in which it was configured.
            const time_t configured = time(nullptr);
            waitUntil([configured] { return time(nullptr) > configured; });
            before = time(nullptr);
        },
        [&before] { return std::to_string(before); });
    const time_t after = time(nullptr);
    logWithoutDate();
    tm read = {};
    const char* const rest = strptime(date.c_str(), "%a %b %d %H:%M:%S %Y", &read);
    ASSERT_NE(rest, nullptr) << date;
    EXPECT_STREQ(rest, "");
    read.tm_isdst = -1;
    const time_t written = mktime(&read);
    EXPECT_GE(written, std::stol(outcome.result));
    EXPECT_LE(written, after);
}

TEST_F(DaemonStart, AppendsToTheLogThatIsThere) {
    writeFile(logPath, "earlier\n");
    start();
    EXPECT_EQ(logWithoutDate(), "earlier\n" + startText());
}

TEST_F(DaemonStart, RecordsItselfAndTheNumberOfCopyProcesses) {
    start();
    ASSERT_THAT(daemons, SizeIs(1));
    EXPECT_EQ(readFile(pidPath), std::to_string(daemons[0].pid) + "\n");
    EXPECT_EQ(permissions(pidPath), 0644U);
    EXPECT_EQ(readFile(statusPath), "njobs 8\n");
    EXPECT_EQ(permissions(statusPath), 0644U);
}

TEST_F(DaemonStart, OverwritesTheFilesOfAnEarlierRun) {
    writeFile(pidPath, std::string(3000, 'x'));
    writeFile(statusPath, std::string(3000, 'x'));
    start();
    ASSERT_THAT(daemons, SizeIs(1));
    EXPECT_EQ(readFile(pidPath), std::to_string(daemons[0].pid) + "\n");
    EXPECT_EQ(readFile(statusPath), "njobs 8\n");
}

TEST_F(DaemonStart, DetachesIntoASessionOfItsOwn) {
    const ChildOutcome outcome =
        start([](Daemon&) {},
              [] {
                  std::string seen = getsid(0) == getpid() ? "leader" : "member";
                  const mode_t mask = umask(0);
                  seen += " umask " + std::to_string(mask);
                  char directory[1024];
                  seen += getcwd(directory, sizeof directory) != nullptr
                              ? " in " + std::string(directory)
                              : " nowhere";
                  seen += " jobs " + std::to_string(GLOBAL::numberOfProcesses);
                  const std::vector<int> open = openDescriptors();
                  seen += open.empty() || open.front() > STDERR_FILENO ? " closed" : " open";
                  return seen;
              });
    EXPECT_EQ(outcome.result, "leader umask 0 in / jobs 8 closed");
}

TEST_F(DaemonStart, LeavesEverySignalAsItWas) {
    const auto dispositions = [] {
        std::vector<std::pair<void (*)(int), int>> all;
        for (int number = 1; number < NSIG; ++number) {
            struct sigaction action = {};
            if (sigaction(number, nullptr, &action) == 0) {
                all.emplace_back(action.sa_handler, action.sa_flags);
            }
        }
        return all;
    };
    const auto before = dispositions();
    const ChildOutcome outcome =
        start([](Daemon&) {},
              [&] { return std::string(dispositions() == before ? "the same" : "changed"); });
    EXPECT_EQ(outcome.result, "the same");
}

TEST_F(DaemonStart, EndsWith8WhenItCannotFork) {
    const ChildOutcome outcome = start([](Daemon&) { FAULTS::fork.failAfter(0, EAGAIN); },
                                       [] { return std::string("came back"); });
    EXPECT_EQ(outcome.exitValue(), 8);
    EXPECT_EQ(outcome.status(), 8);
    EXPECT_EQ(outcome.result, "");
    EXPECT_EQ(outcome.errorOutput, "");
    EXPECT_THAT(daemons, SizeIs(0));
    EXPECT_EQ(logText(), "");
    EXPECT_FALSE(exists(pidPath));
}

TEST_F(DaemonStart, EndsWith16WhenItCannotHaveASession) {
    const ChildOutcome outcome = start([](Daemon&) { FAULTS::setsid.failAfter(0, EPERM); },
                                       [] { return std::string("came back"); });
    expectDaemonEnd(outcome, 16);
    EXPECT_EQ(outcome.result, "");
    EXPECT_EQ(logText(), "");
    EXPECT_FALSE(exists(pidPath));
}

TEST_F(DaemonStart, EndsWith32WhenItCannotChangeToTheRoot) {
    const ChildOutcome outcome = start([](Daemon&) { FAULTS::chdir.failAfter(0, EACCES); },
                                       [] { return std::string("came back"); });
    expectDaemonEnd(outcome, 32);
    EXPECT_EQ(outcome.result, "");
    EXPECT_EQ(logText(), "");
    EXPECT_FALSE(exists(pidPath));
}

TEST_F(DaemonStart, EndsWith64AndSaysNothingWhenThePidFileCannotBeWritten) {
    ASSERT_EQ(mkdir(pidPath, 0755), 0);
    const ChildOutcome outcome = start();
    expectDaemonEnd(outcome, 64);
    EXPECT_EQ(outcome.result, "");
    EXPECT_EQ(logText(), "");
    EXPECT_FALSE(exists(statusPath));
}

TEST_F(DaemonStart, GoesOnWithoutAStatusFile) {
    ASSERT_EQ(mkdir(statusPath, 0755), 0);
    const ChildOutcome outcome = start();
    expectDaemonEnd(outcome, 0);
    EXPECT_EQ(outcome.result, "came back");
    EXPECT_EQ(logWithoutDate(), startText());
}

TEST_F(DaemonStart, GreetsTheConsumer) {
    commandLine({"-u", "1000:100"});
    makeFifo(GLOBAL::pathToVantrelFifo);
    FifoReader consumer(GLOBAL::pathToVantrelFifo);
    start();
    EXPECT_EQ(consumer.text(), "usershift: 1000 100\n");
}

TEST_F(DaemonStart, GoesOnWithoutAConsumer) {
    makeFifo(GLOBAL::pathToVantrelFifo);
    const ChildOutcome outcome = start();
    expectDaemonEnd(outcome, 0);
    EXPECT_EQ(logWithoutDate(), startText());
}

TEST_F(DaemonStart, StartsAllWorkersInOrderBeforeItWaitsForAny) {
    std::atomic<bool> lastRan{false};
    const ChildOutcome outcome = start(
        [&](Daemon& daemon) {
            // The first one does not end before the last one runs.
            daemon.detectors["A"] =
                new BriefWorker("A", [&] { waitUntil([&] { return lastRan.load(); }); });
            daemon.detectors["C"] = new BriefWorker("C", [&] { lastRan = true; });
            daemon.detectors["B"] = new BriefWorker("B", [] {});
        },
        [&] { return std::string(lastRan ? "all ran" : "not all ran"); });
    expectDaemonEnd(outcome, 0);
    EXPECT_EQ(outcome.result, "all ran");
    EXPECT_EQ(logWithoutDate(), startText() + "++ Starting copy thread for detector A\n"
                                              "++ Starting copy thread for detector B\n"
                                              "++ Starting copy thread for detector C\n");
}

TEST_F(DaemonStart, LogsAboveTheStandardDescriptorsWhileWorkersStart) {
    const ChildOutcome outcome = start(
        [&](Daemon& daemon) {
            for (const char* id : {"1", "2", "3"}) {
                daemon.detectors[id] = new BriefWorker(id, [] {});
            }
        },
        [] {
            const std::vector<int> left = openDescriptors();
            return std::string(FAULTS::lowestFreeAtThreadStart > STDERR_FILENO ? "above"
                                                                               : "below") +
                   (left.empty() || left.front() > STDERR_FILENO ? " given back" : " kept");
        });
    EXPECT_EQ(outcome.result, "above given back");
}

TEST_F(DaemonStart, WaitsForEveryWorker) {
    std::atomic<int> ended{0};
    const auto slowly = [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        ++ended;
    };
    const ChildOutcome outcome = start(
        [&](Daemon& daemon) {
            for (const char* id : {"1", "2", "3"}) {
                daemon.detectors[id] = new BriefWorker(id, slowly);
            }
        },
        [&] { return std::to_string(ended); });
    EXPECT_EQ(outcome.result, "3");
}

TEST_F(DaemonStart, GoesOnWithTheOthersWhenAThreadCannotBeHad) {
    std::atomic<int> ended{0};
    const ChildOutcome outcome = start(
        [&](Daemon& daemon) {
            for (const char* id : {"1", "2"}) {
                daemon.detectors[id] = new BriefWorker(id, [&] { ++ended; });
            }
            FAULTS::pthreadCreate.failAfter(0, EAGAIN);
        },
        [&] { return std::to_string(ended); });
    EXPECT_EQ(outcome.result, "1");
    expectDaemonEnd(outcome, 0);
}

TEST_F(DaemonStart, RunsTheConfiguredWorkersUntilASignalEndsIt) {
    // The second detector's listing ends the daemon once both were listed.
    writeScript(GLOBAL::rsyncCommand,
                "echo \"$5\" >>" + scratch.path() +
                    "/listed\n"
                    "if grep -q 10.0.0.1 " +
                    scratch.path() + "/listed && grep -q 10.0.0.2 " + scratch.path() +
                    "/listed; then\n"
                    "kill -TERM $(head -n 1 /var/run/skarn_orbelin.pid)\nfi\n");
    configure({"detectorID 1", "remoteIP 10.0.0.1", "target " + (scratch / "t1"), "minpause 1",
               "detectorID 2", "remoteIP 10.0.0.2", "target " + (scratch / "t2")});
    start();
    // What it left of its listings has ended too.
    const auto daemon = std::find_if(daemons.begin(), daemons.end(), [](const Orphan& orphan) {
        return readFile(pidPath) == std::to_string(orphan.pid) + "\n";
    });
    ASSERT_NE(daemon, daemons.end());
    ASSERT_TRUE(WIFSIGNALED(daemon->waitStatus));
    EXPECT_EQ(WTERMSIG(daemon->waitStatus), SIGTERM);
    EXPECT_EQ(logWithoutDate(), startText() + "++ Starting copy thread for detector 1\n"
                                              "++ Starting copy thread for detector 2\n");
    EXPECT_THAT(readFile(scratch / "listed"), HasSubstr("rsync://root@10.0.0.1:49371/ramdisk/\n"));
    EXPECT_TRUE(exists(scratch / "t1"));
    EXPECT_TRUE(exists(scratch / "t2"));
    EXPECT_EQ(readFile(statusPath), "njobs 8\n");
}
