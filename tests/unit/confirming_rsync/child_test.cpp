// A program as a child: how it is started, what it gets, how it ends.
#include "confirming_rsync/child.h"
#include "confirming_rsync/descriptors.h"

#include <chrono>
#include <csignal>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace confirming {
namespace {

using Strings = std::vector<std::string>;

class ChildTest : public testing::Test {
protected:
    // As the program does when it begins; what the test was started with is no concern of it.
    static void SetUpTestSuite() { closeInheritedDescriptors(); }

    static std::string readAll(Descriptor& from) {
        std::string text;
        char buffer[4096];
        for (;;) {
            const ssize_t count = ::read(from.get(), buffer, sizeof buffer);
            if (count <= 0) {
                return text;
            }
            text.append(buffer, static_cast<std::size_t>(count));
        }
    }

    static bool endsSoon(Child& child) {
        for (int rounds = 0; rounds < 3000; ++rounds) {
            if (child.hasEnded()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    static ProgramCall shell(const std::string& script, const Strings& environment = {}) {
        return {"/bin/sh", {"-c", script}, environment};
    }

    Signals signals;
    Descriptor input{::open("/dev/null", O_RDONLY | O_CLOEXEC)};
};

TEST_F(ChildTest, HasItsOutputsRead) {
    Child child(shell("echo out; echo err >&2; exit 7"), input, signals);
    ASSERT_EQ(child.failure(), "");
    EXPECT_EQ(readAll(child.output), "out\n");
    EXPECT_EQ(readAll(child.errorOutput), "err\n");
    ASSERT_TRUE(endsSoon(child));
    EXPECT_EQ(child.exitStatus(), 7);
    EXPECT_TRUE(child.hasEnded());
}

TEST_F(ChildTest, GetsItsArgumentsEnvironmentAndInput) {
    const Pipe names = makePipe();
    ASSERT_EQ(::write(names.writeEnd.get(), "given\n", 6), 6);
    Child child({"/bin/sh",
                 {"-c", "read line; echo \"$0|$1|$line\"; env", "x y", ""},
                 {"A=1", "PATH=/usr/bin:/bin"}},
                names.readEnd, signals);
    const std::string output = readAll(child.output);
    EXPECT_EQ(output.substr(0, output.find('\n')), "x y||given");
    EXPECT_NE(output.find("\nA=1\n"), std::string::npos);
    EXPECT_EQ(output.find("HOME="), std::string::npos);
}

TEST_F(ChildTest, HasNothingElseOpen) {
    const Descriptor other(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    Child child({"/bin/ls", {"/proc/self/fd"}, {}}, input, signals);
    // 3 is the folder that is being listed.
    EXPECT_EQ(readAll(child.output), "0\n1\n2\n3\n");
}

TEST_F(ChildTest, IsFreeToBeInterruptedAndLeadsItsGroup) {
    Child child(shell("read -r _ _ _ _ group rest </proc/$$/stat; echo $$ $group; "
                      "while read -r name value; do case $name in SigBlk:|SigIgn:) echo $value;; "
                      "esac; done </proc/$$/status"),
                input, signals);
    const std::string output = readAll(child.output);
    const std::string ids = output.substr(0, output.find('\n'));
    EXPECT_EQ(ids.substr(0, ids.find(' ')), ids.substr(ids.find(' ') + 1));
    EXPECT_EQ(output.substr(output.find('\n') + 1), "0000000000000000\n0000000000000000\n");
}

TEST_F(ChildTest, SaysWhyItCouldNotBeStarted) {
    Child missing({"/nonexistent/rsync", {}, {}}, input, signals);
    EXPECT_EQ(missing.failure(), "cannot start /nonexistent/rsync: No such file or directory");
    Child folder({"/tmp", {}, {}}, input, signals);
    EXPECT_EQ(folder.failure(), "cannot start /tmp: Permission denied");
    Child withoutInput(shell("exit 0"), Descriptor(), signals);
    EXPECT_NE(withoutInput.failure(), "");
    EXPECT_FALSE(withoutInput.output);
}

TEST_F(ChildTest, EndsAsAShellWouldSay) {
    Child child(shell("kill -TERM $$"), input, signals);
    ASSERT_TRUE(endsSoon(child));
    EXPECT_EQ(child.exitStatus(), 128 + SIGTERM);
}

TEST_F(ChildTest, IsKilledWithAllItStarted) {
    Child child(shell("trap '' TERM; sleep 1000 & echo on; wait"), input, signals);
    char on[3];
    ASSERT_EQ(::read(child.output.get(), on, sizeof on), 3);
    EXPECT_FALSE(child.hasEnded());
    child.signal(SIGTERM);
    child.kill();
    ASSERT_TRUE(endsSoon(child));
    EXPECT_EQ(child.exitStatus(), 128 + SIGKILL);
    // The sleep held the output open.
    EXPECT_EQ(readAll(child.output), "");
}

TEST_F(ChildTest, TakesWithItWhatItLeftRunning) {
    Descriptor output;
    {
        Child child(shell("sleep 1000 & echo on"), input, signals);
        ASSERT_TRUE(endsSoon(child));
        EXPECT_EQ(child.exitStatus(), 0);
        output = std::move(child.output);
    }
    // The sleep held the output open.
    EXPECT_EQ(readAll(output), "on\n");
}

TEST_F(ChildTest, HasItsNumberUntilItIsOver) {
    Child child(shell("exit 0"), input, signals);
    ASSERT_TRUE(endsSoon(child));
    // Not waited for, so that no other process can have the number, or the group, that is killed.
    EXPECT_EQ(::kill(child.group(), 0), 0);
    EXPECT_EQ(::kill(-child.group(), 0), 0);
}

TEST(Signals, CanBeTakenOneByOne) {
    Signals signals;
    EXPECT_EQ(signals.take(), 0);
    ::raise(SIGTERM);
    ::raise(SIGHUP);
    const int first = signals.take();
    const int second = signals.take();
    EXPECT_TRUE((first == SIGTERM && second == SIGHUP) || (first == SIGHUP && second == SIGTERM));
    EXPECT_EQ(signals.take(), 0);
}

TEST(Signals, StayIgnoredIfTheyWere) {
    ::signal(SIGHUP, SIG_IGN);
    {
        Signals signals;
        ::raise(SIGHUP);
        EXPECT_EQ(signals.take(), 0);
    }
    ::signal(SIGHUP, SIG_DFL);
}

TEST(Signals, EndTheProgramAsIfNeverHandled) {
    EXPECT_EXIT(
        {
            const Signals signals;
            endBySignal(SIGTERM);
        },
        testing::KilledBySignal(SIGTERM), "");
    EXPECT_EXIT(
        {
            const Signals signals;
            endBySignal(SIGPIPE);
        },
        testing::KilledBySignal(SIGPIPE), "");
}

} // namespace
} // namespace confirming
