// The parts of start, stop and status that need no daemon.
#include "control/control_files.h"
#include "control/service/service_commands.h"

#include <csignal>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace control {

namespace {

int firstOf(std::vector<const char*> words) {
    words.insert(words.begin(), "skarnctl");
    return firstStartOption(static_cast<int>(words.size()), words.data());
}

TEST(FirstStartOption, IsBehindTheWordThatStarts) {
    EXPECT_EQ(firstOf({"start"}), 2);
    EXPECT_EQ(firstOf({"start", "-u", "1:2"}), 2);
    EXPECT_EQ(firstOf({"restart", "stop", "--", ""}), 2);
    EXPECT_EQ(firstOf({"restart", "--when-idle", "-u", "1:2"}), 3);
    EXPECT_EQ(firstOf({"restart", "--when-idle=5", "-u", "1:2"}), 3);
    EXPECT_EQ(firstOf({"start", "--when-idle", "-u", "1:2"}), 2);
    EXPECT_EQ(firstOf({"--daemon", "/a/skarn", "start", "start"}), 4);
    EXPECT_EQ(firstOf({"--daemon=/a/skarn", "restart", "-x"}), 3);
    EXPECT_EQ(firstOf({"--daemon", "start", "start", "-x"}), 4);
}

TEST(FirstStartOption, IsTheEndForEverythingElse) {
    EXPECT_EQ(firstOf({}), 1);
    EXPECT_EQ(firstOf({"stop", "start"}), 3);
    EXPECT_EQ(firstOf({"--daemon"}), 2);
    EXPECT_EQ(firstOf({"--daemon", "start"}), 3);
    EXPECT_EQ(firstOf({"--version", "start"}), 3);
    EXPECT_EQ(firstOf({"", "start"}), 3);
    EXPECT_EQ(firstOf({"check", "-u", "start"}), 4);
    EXPECT_EQ(firstOf({"--daemonstart", "start"}), 3);
}

TEST(IsFileListOf, KnowsTheListsOfOneDaemon) {
    EXPECT_TRUE(isFileListOf("file_list_812_-17_0", 812));
    EXPECT_TRUE(isFileListOf("file_list_812_17_7", 812));
    EXPECT_FALSE(isFileListOf("file_list_8121_17_7", 812));
    EXPECT_FALSE(isFileListOf("file_list_81_17_7", 812));
    EXPECT_FALSE(isFileListOf("my_file_list_812_17_7", 812));
    EXPECT_FALSE(isFileListOf("file_list_812", 812));
}

TEST(StatusCode, IsThatOfInitScripts) {
    using State = DaemonProcesses::State;
    EXPECT_EQ(statusCode(State::running), 0);
    EXPECT_EQ(statusCode(State::dead), 1);
    EXPECT_EQ(statusCode(State::notRunning), 3);
    EXPECT_EQ(statusCode(State::unknown), 4);
    EXPECT_EQ(statusCode(State::seemsToRun), 5);
}

TEST(StatusText, QuotesTheStartOptionsAndSteersNoTerminal) {
    DaemonProcesses found;
    found.text = "skarn runs\x1b[2J";
    EXPECT_EQ(statusText(found), "skarn runs\\033[2J\n");
    found.startOptions = {"-d", "1:/a b:/c", "", "it's", "a\nb", "\xc2\x9b"};
    EXPECT_EQ(statusText(found), "skarn runs\\033[2J\nstart options: -d '1:/a b:/c' '' "
                                 "'it'\\''s' 'a\\012b' '\\302\\233'\n");
}

TEST(StatusJson, HasTheSameKeysInEveryState) {
    DaemonProcesses found;
    found.state = DaemonProcesses::State::running;
    found.daemon.pid = 812;
    found.upSince = 1000.7;
    found.startOptions = {"\xff"};
    found.copyProcesses.resize(1);
    found.copyProcesses[0].pid = 905;
    const auto running = nlohmann::json::parse(statusJson(found, 8));
    EXPECT_EQ(running["pid"], 812);
    EXPECT_EQ(running["since"], 1000);
    EXPECT_EQ(running["copy_process_limit"], 8);
    EXPECT_EQ(running["copy_processes"][0]["pid"], 905);
    EXPECT_EQ(running["start_options"][0], "\xef\xbf\xbd");

    const auto unknown = nlohmann::json::parse(statusJson(DaemonProcesses(), 8));
    EXPECT_EQ(unknown["state"], "unknown");
    EXPECT_EQ(unknown["exit_status"], 4);
    EXPECT_TRUE(unknown["pid"].is_null());
    EXPECT_TRUE(unknown["copy_process_limit"].is_null());
    for (const auto& [key, value] : running.items()) {
        EXPECT_TRUE(unknown.contains(key)) << key;
    }
    EXPECT_EQ(running.size(), unknown.size());
}

TEST(ProcessHandle, HoldsOneProcessAndNoLaterOwnerOfItsNumber) {
    const pid_t pid = fork();
    if (pid == 0) {
        while (true) {
            pause();
        }
    }
    const auto process = readProcess(pid);
    ASSERT_TRUE(process);
    Process earlier = *process;
    earlier.startTicks -= 1;
    EXPECT_FALSE(ProcessHandle::hold(earlier)) << "another process had the number then";

    const auto handle = ProcessHandle::hold(*process);
    ASSERT_TRUE(handle);
    EXPECT_TRUE(handle->isRunning());
    EXPECT_EQ(handle->send(SIGKILL), ProcessHandle::Sent::sent);
    EXPECT_TRUE(waitFor([&] { return !handle->isRunning(); }, std::chrono::seconds(20)));
    EXPECT_EQ(handle->send(SIGTERM), ProcessHandle::Sent::ended) << "a zombie";
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(handle->send(SIGTERM), ProcessHandle::Sent::ended);
    EXPECT_FALSE(ProcessHandle::hold(*process));
}

/// A process that stands for the daemon, with a copy process or a file list as the test wants.
class IdleMoment : public testing::Test {
protected:
    void SetUp() override { startDaemon(false); }
    void TearDown() override {
        end(daemon);
        end(copy);
        unlink(list.c_str());
    }

    void startDaemon(bool withCopy) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        daemon = fork();
        if (daemon == 0) {
            setsid();
            pid_t child = 0;
            if (withCopy) {
                child = fork();
                if (child == 0) {
                    setsid();
                    child = getpid();
                }
            }
            // The copy process itself tells its number: it has its session by then.
            if (!withCopy || child == getpid()) {
                const ssize_t count = write(ends[1], &child, sizeof child);
                static_cast<void>(count);
            }
            while (true) {
                pause();
            }
        }
        ASSERT_EQ(read(ends[0], &copy, sizeof copy), static_cast<ssize_t>(sizeof copy));
        close(ends[0]);
        close(ends[1]);
        list = "/tmp/file_list_" + std::to_string(daemon) + "_-5_0";
    }
    static void end(pid_t& pid) {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        pid = 0;
    }
    IdleEnd attempt() const {
        const auto handle = ProcessHandle::hold(*readProcess(daemon));
        return handle ? endWhenIdle(*handle, std::chrono::seconds(0)) : IdleEnd::gone;
    }
    /// It neither ended nor was left standing still.
    bool goesOn() const {
        return waitFor([this] { return threadStates(daemon).find_first_of("SR") == 0; },
                       std::chrono::seconds(20));
    }

    pid_t daemon = 0;
    pid_t copy = 0;
    std::string list;
};

TEST_F(IdleMoment, EndsADaemonThatHasNothingToDo) {
    EXPECT_EQ(attempt(), IdleEnd::ended);
    int status = 0;
    ASSERT_EQ(waitpid(daemon, &status, 0), daemon);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM) << "SIGKILL would look like a lack of memory";
    daemon = 0;
}

TEST_F(IdleMoment, EndsADaemonThatIgnoresTheSignal) {
    end(daemon);
    std::signal(SIGTERM, SIG_IGN);
    startDaemon(false);
    std::signal(SIGTERM, SIG_DFL);
    EXPECT_EQ(attempt(), IdleEnd::ended);
}

TEST_F(IdleMoment, DoesNotWaitForAListThatAnotherUserMade) {
    std::ofstream{list} << "a\n";
    ASSERT_EQ(chown(list.c_str(), 65534, 65534), 0);
    EXPECT_EQ(attempt(), IdleEnd::ended);
}

TEST_F(IdleMoment, WaitsForAListThatSeemsOldSinceTheClockWasSet) {
    // The daemon wrote its status file, and then its list, before the clock was set forward.
    const timespec times[2] = {{1000, 0}, {1000, 0}};
    std::ofstream{statusFilePath()} << "njobs 8\n";
    std::ofstream{list} << "a\n";
    ASSERT_EQ(utimensat(AT_FDCWD, statusFilePath().c_str(), times, 0), 0);
    ASSERT_EQ(utimensat(AT_FDCWD, list.c_str(), times, 0), 0);
    EXPECT_EQ(attempt(), IdleEnd::busy);
    unlink(statusFilePath().c_str());
}

TEST_F(IdleMoment, WaitsForFileLists) {
    std::ofstream{list} << "a\n";
    EXPECT_EQ(attempt(), IdleEnd::busy);
    EXPECT_TRUE(goesOn());
    unlink(list.c_str());
    EXPECT_EQ(attempt(), IdleEnd::ended);
}

TEST_F(IdleMoment, DoesNotWaitForTheListOfAnEarlierProcess) {
    std::ofstream{list} << "a\n";
    const timespec times[2] = {{1, 0}, {1, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, list.c_str(), times, 0), 0);
    EXPECT_EQ(attempt(), IdleEnd::ended);
}

TEST_F(IdleMoment, DoesNotWaitForTheListOfAnotherDaemon) {
    std::ofstream{"/tmp/file_list_1_-5_0"} << "a\n";
    EXPECT_EQ(attempt(), IdleEnd::ended);
    unlink("/tmp/file_list_1_-5_0");
}

TEST_F(IdleMoment, WaitsForCopyProcessesWithoutAList) {
    end(daemon);
    startDaemon(true);
    ASSERT_GT(copy, 0);
    EXPECT_EQ(attempt(), IdleEnd::busy);
    EXPECT_TRUE(goesOn());
    kill(copy, SIGKILL); // a zombie from now on, since nobody waits for it
    ASSERT_TRUE(
        waitFor([this] { return !isRunning(*readProcess(copy)); }, std::chrono::seconds(20)));
    EXPECT_EQ(attempt(), IdleEnd::ended);
}

TEST_F(IdleMoment, FindsTheDaemonGone) {
    const auto handle = ProcessHandle::hold(*readProcess(daemon));
    ASSERT_TRUE(handle);
    end(daemon);
    EXPECT_EQ(endWhenIdle(*handle, std::chrono::seconds(30)), IdleEnd::gone);
}

TEST(WaitFor, GivesUpWhenTheTimeHasRunOut) {
    int looks = 0;
    EXPECT_FALSE(waitFor([&looks] { return ++looks < 0; }, std::chrono::milliseconds(25)));
    EXPECT_GE(looks, 2);
    EXPECT_TRUE(waitFor([] { return true; }, std::chrono::milliseconds(0)));
}

} // namespace

} // namespace control
