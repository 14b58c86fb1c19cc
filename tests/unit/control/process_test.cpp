// What the kernel's line about a process is read as, and what is asked of living processes.
#include "control/process.h"

#include <csignal>
#include <ctime>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace control {

namespace {

using testing::AllOf;
using testing::Contains;
using testing::Not;

const std::string numbers = " 812 40 41 34816 812 4194304 1 2 3 4 5 6 7 8 20 0 9 0 777 1000 5 "
                            "18446744073709551615 1 1 0 0 0 0 0 0 65538";

TEST(ParseProcess, GivesWhatIsAskedOfAProcess) {
    const auto process = parseProcess("905 (skarn) S" + numbers + "\n");
    ASSERT_TRUE(process);
    EXPECT_EQ(process->pid, 905);
    EXPECT_EQ(process->name, "skarn");
    EXPECT_EQ(process->state, 'S');
    EXPECT_EQ(process->parent, 812);
    EXPECT_EQ(process->group, 40);
    EXPECT_EQ(process->session, 41);
    EXPECT_EQ(process->startTicks, 777U);
}

TEST(ParseProcess, IsNotMisledByAName) {
    for (const std::string name : {"", " ", ")", "(", ") S 1 1 1 1", "a (b) c", ") Z 1 ", "x\ny",
                                   "\xff\x1b[2J", "1 (2) S 3"}) {
        std::string text = "905 (";
        text.append(name).append(") R").append(numbers);
        const auto process = parseProcess(text);
        ASSERT_TRUE(process) << name;
        EXPECT_EQ(process->pid, 905) << name;
        EXPECT_EQ(process->name, name);
        EXPECT_EQ(process->state, 'R') << name;
        EXPECT_EQ(process->parent, 812) << name;
        EXPECT_EQ(process->startTicks, 777U) << name;
    }
}

TEST(ParseProcess, GivesNothingForATextThatIsCutOff) {
    const std::string whole = "905 (a) b) S" + numbers;
    const std::size_t end = whole.find(" 777") + 4;
    for (std::size_t length = 0; length < end - 3; ++length) {
        EXPECT_EQ(parseProcess(whole.substr(0, length)), std::nullopt) << length;
    }
    EXPECT_TRUE(parseProcess(whole.substr(0, end)));
}

TEST(ParseProcess, GivesNothingForAnotherForm) {
    for (const std::string& text :
         {"905 skarn S" + numbers, "(skarn) S" + numbers, "x (skarn) S" + numbers,
          "-905 (skarn) S" + numbers, "0 (skarn) S" + numbers, "99999999999 (skarn) S" + numbers,
          std::string("905 (skarn) S x y z"), std::string(") 905 (skarn"), std::string("\n"),
          std::string(70, ' ')}) {
        EXPECT_EQ(parseProcess(text), std::nullopt) << text;
    }
}

TEST(ParseProcess, TakesNoNumberThatDoesNotFit) {
    EXPECT_EQ(parseProcess("905 (skarn) S 99999999999 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 777"),
              std::nullopt);
}

TEST(IsRunning, IsFalseForOneThatHasEnded) {
    Process process;
    for (const char state : {'R', 'S', 'D', 'T', 't', 'I'}) {
        process.state = state;
        EXPECT_TRUE(isRunning(process)) << state;
    }
    for (const char state : {'Z', 'X'}) {
        process.state = state;
        EXPECT_FALSE(isRunning(process)) << state;
    }
}

/// A child that waits to be killed.
class Child {
public:
    Child() : pid(fork()) {
        if (pid == 0) {
            setsid();
            while (true) {
                pause();
            }
        }
        while (readProcess(pid)->session != pid) {
            usleep(1000);
        }
    }
    ~Child() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    const pid_t pid;
};

/// As /proc lists them: one, and those that a sanitizer adds.
std::size_t countThreads(pid_t pid) {
    std::size_t count = 0;
    for (const auto& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        count += thread.is_directory() ? 1 : 0;
    }
    return count;
}

TEST(ReadProcess, TellsAChild) {
    const Child child;
    const auto process = readProcess(child.pid);
    ASSERT_TRUE(process);
    EXPECT_EQ(process->pid, child.pid);
    EXPECT_EQ(process->parent, getpid());
    EXPECT_EQ(process->session, child.pid);
    EXPECT_EQ(process->group, child.pid);
    EXPECT_TRUE(isRunning(*process));
    EXPECT_NEAR(startTime(*process), static_cast<double>(std::time(nullptr)), 5);
    EXPECT_EQ(userOf(child.pid), geteuid());
    EXPECT_TRUE(sharesPidNamespace(child.pid));
    EXPECT_EQ(threadsOf(child.pid).size(), countThreads(child.pid));
    EXPECT_EQ(executable(child.pid), executable(getpid()));
    EXPECT_EQ(commandLine(child.pid), commandLine(getpid()));
    EXPECT_EQ(fileIdOf("/proc/" + std::to_string(child.pid) + "/exe"),
              fileIdOf(executable(getpid())));
    EXPECT_THAT(childrenOf(getpid()), Contains(child.pid));
    EXPECT_THAT(allProcesses(), AllOf(Contains(child.pid), Contains(getpid())));
}

TEST(ReadProcess, FindsAZombieAndThenNothing) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    const auto zombie = readProcess(pid);
    ASSERT_TRUE(zombie);
    EXPECT_FALSE(isRunning(*zombie));
    EXPECT_TRUE(commandLine(pid).empty());
    EXPECT_EQ(executable(pid), "");
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(readProcess(pid), std::nullopt);
    EXPECT_EQ(userOf(pid), std::nullopt);
    EXPECT_TRUE(threadsOf(pid).empty());
    EXPECT_EQ(threadStates(pid), "");
    EXPECT_TRUE(childrenOf(pid).empty());
    EXPECT_THAT(allProcesses(), Not(Contains(pid)));
}

TEST(ThreadStates, TellsThatAProcessStandsStill) {
    const Child child;
    ASSERT_EQ(kill(child.pid, SIGSTOP), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child.pid, &status, WUNTRACED), child.pid);
    EXPECT_EQ(threadStates(child.pid), std::string(countThreads(child.pid), 'T'));
}

TEST(FileIdOf, TellsFilesFromEachOther) {
    EXPECT_EQ(fileIdOf("/nowhere"), std::nullopt);
    EXPECT_EQ(fileIdOf("/proc/self/exe"), fileIdOf(executable(getpid())));
    EXPECT_FALSE(fileIdOf("/") == fileIdOf("/proc"));
}

} // namespace

} // namespace control
