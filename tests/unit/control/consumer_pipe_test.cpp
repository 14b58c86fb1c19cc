// Finding out who reads the hand-off pipe, without touching it.
#include "control/consumer_pipe.h"
#include "utilities/descriptors.h"
#include "utilities/sleep.h"

#include <cstdlib>
#include <functional>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace control {

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using State = PipeSnapshot::State;

TEST(IsOpenForReading, TellsTheAccessFromTheKernelsFlags) {
    EXPECT_TRUE(isOpenForReading("pos:\t0\nflags:\t0100000\nmnt_id:\t24\n"));
    EXPECT_TRUE(isOpenForReading("pos:\t0\nflags:\t02104002\n"));
    EXPECT_FALSE(isOpenForReading("pos:\t0\nflags:\t0100001\n"));
    EXPECT_FALSE(isOpenForReading("pos:\t0\nflags:\t02104001\n"));
}

TEST(IsOpenForReading, TakesAMerePlaceForNone) {
    EXPECT_FALSE(isOpenForReading("pos:\t0\nflags:\t012000000\nmnt_id:\t24\n"));
}

TEST(IsOpenForReading, TakesAnyOtherTextForNone) {
    for (const char* const text :
         {"", "pos:\t0\n", "flags:", "flags:\n", "flags:\tx\n", "xflags:\t0\n"}) {
        EXPECT_FALSE(isOpenForReading(text)) << text;
    }
}

std::string openat(const std::string& arguments) {
    return std::to_string(SYS_openat) + " " + arguments + " 0x7fff0f1f7530 0x7fe5b5d08011\n";
}

TEST(ParsePendingCall, GivesFolderAndPathOfAnOpen) {
    const auto pending = parsePendingCall(openat("0xffffff9c 0x7fff0f1f99c4 0x0 0x0 0x0 0x0"));
    ASSERT_TRUE(pending);
    EXPECT_EQ(pending->kind, PendingCall::Kind::openToRead);
    EXPECT_EQ(pending->descriptor, AT_FDCWD);
    EXPECT_EQ(pending->pathAddress, 0x7fff0f1f99c4U);

    const auto both = parsePendingCall(openat("0x5 0x10 0x80002 0x0 0x0 0x0"));
    ASSERT_TRUE(both);
    EXPECT_EQ(both->kind, PendingCall::Kind::openToRead);
    EXPECT_EQ(both->descriptor, 5);

    const auto writer = parsePendingCall(openat("0xffffff9c 0x7fff0f1f99c4 0x80001 0x0 0x0 0x0"));
    ASSERT_TRUE(writer);
    EXPECT_EQ(writer->kind, PendingCall::Kind::openToWrite);
}

TEST(ParsePendingCall, GivesTheDescriptorOfAWrite) {
    const auto pending =
        parsePendingCall(std::to_string(SYS_write) + " 0x7 0x10 0x20 0x0 0x0 0x0 0x1 0x2\n");
    ASSERT_TRUE(pending);
    EXPECT_EQ(pending->kind, PendingCall::Kind::write);
    EXPECT_EQ(pending->descriptor, 7);
}

TEST(ParsePendingCall, GivesNothingForOtherCalls) {
    EXPECT_FALSE(parsePendingCall("9999 0x5 0x10 0x0 0x0 0x0 0x0 0x1 0x2\n"));
    EXPECT_FALSE(parsePendingCall("running\n"));
    EXPECT_FALSE(parsePendingCall("-1 0x7ffd 0x7f14\n"));
    EXPECT_FALSE(parsePendingCall(""));
    EXPECT_FALSE(parsePendingCall(std::to_string(SYS_openat) + " 0x1 0x2"));
}

TEST(ReadRight, GoesByOwnerGroupAndMode) {
    const std::string status = "Name:\tcat\nUid:\t7\t7\t7\t7\nGid:\t8\t8\t8\t8\nGroups:\t9 10\n";
    EXPECT_EQ(readRight(status, 7, 1, 0600), ReadRight::asItsOwn);
    EXPECT_EQ(readRight(status, 6, 8, 0600), ReadRight::none);
    EXPECT_EQ(readRight(status, 6, 8, 0640), ReadRight::asItsOwn);
    EXPECT_EQ(readRight(status, 6, 10, 0640), ReadRight::asItsOwn);
    EXPECT_EQ(readRight(status, 6, 11, 0640), ReadRight::none);
    EXPECT_EQ(readRight(status, 6, 11, 0604), ReadRight::asAnybody);
    EXPECT_EQ(readRight("Uid:\t5\t5\t0\t5\n", 6, 11, 0), ReadRight::asItsOwn);
    // Of whom nothing is told, nothing is ruled out.
    EXPECT_EQ(readRight("", 1, 1, 0600), ReadRight::asItsOwn);
}

/// A child process that runs `work`, killed and waited for at the end.
class Child {
public:
    explicit Child(const std::function<int()>& work) : pid(fork()) {
        if (pid == 0) {
            _exit(work());
        }
    }
    ~Child() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Its exit status, once it has ended.
    int wait() {
        int status = -1;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string number() const { return std::to_string(pid); }

private:
    pid_t pid;
};

class ConsumerPipe : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
        path = folder + "/pipe";
        ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
        ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    }

    void TearDown() override {
        for (const char* const name : {"/pipe", "/other", "/file"}) {
            unlink((folder + name).c_str());
        }
        rmdir(folder.c_str());
    }

    static std::string me() { return "(" + std::to_string(getpid()) + ")"; }

    /// Looks until the pipe is in this state, or for so long that it will never be.
    PipeSnapshot await(State state) const {
        PipeSnapshot snapshot = lookAtConsumerPipe(path);
        for (int i = 0; i < 2000 && snapshot.state != state; ++i) {
            UTILITIES::sleepMilliSeconds(10);
            snapshot = lookAtConsumerPipe(path);
        }
        return snapshot;
    }

    std::string folder = "/tmp/consumer_pipe_XXXXXX";
    std::string path;
};

TEST_F(ConsumerPipe, IsAbsentWithoutAFile) {
    for (const std::string& nowhere : {folder + "/nothing", path + "/below", std::string()}) {
        const PipeSnapshot snapshot = lookAtConsumerPipe(nowhere);
        EXPECT_EQ(snapshot.state, State::absent) << nowhere;
        EXPECT_EQ(snapshot.path, nowhere);
    }
}

TEST_F(ConsumerPipe, IsNoPipeIfItIsAnotherKindOfFile) {
    const Descriptor made(open((folder + "/file").c_str(), O_CREAT | O_RDONLY | O_CLOEXEC, 0600));
    EXPECT_EQ(lookAtConsumerPipe(folder + "/file").state, State::notAPipe);
    EXPECT_EQ(lookAtConsumerPipe(folder).state, State::notAPipe);
}

TEST_F(ConsumerPipe, IsReadByWhoeverHasItOpenForReading) {
    const Descriptor reading(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_GE(reading.get(), 0);
    const PipeSnapshot snapshot = lookAtConsumerPipe(path);
    EXPECT_EQ(snapshot.state, State::read);
    EXPECT_THAT(snapshot.readers, ElementsAre(EndsWith(" " + me())));
}

TEST_F(ConsumerPipe, IsReadByWhoeverHasItOpenForBoth) {
    const Descriptor both(open(path.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_GE(both.get(), 0);
    EXPECT_EQ(lookAtConsumerPipe(path).state, State::read);
}

TEST_F(ConsumerPipe, IsNotReadByAWriter) {
    Descriptor both(open(path.c_str(), O_RDWR | O_CLOEXEC));
    const Descriptor writing(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_GE(writing.get(), 0);
    both.reset();
    const PipeSnapshot snapshot = lookAtConsumerPipe(path);
    EXPECT_EQ(snapshot.state, State::noReader);
    EXPECT_THAT(snapshot.readers, IsEmpty());
}

TEST_F(ConsumerPipe, IsNotReadByOneWhoOnlyHoldsItsPlace) {
    const Descriptor place(open(path.c_str(), O_PATH | O_CLOEXEC));
    ASSERT_GE(place.get(), 0);
    EXPECT_EQ(lookAtConsumerPipe(path).state, State::noReader);
}

TEST_F(ConsumerPipe, IsTheSamePipeByAnyName) {
    const std::string other = folder + "/other";
    ASSERT_EQ(link(path.c_str(), other.c_str()), 0);
    const Descriptor reading(open(other.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(lookAtConsumerPipe(path).state, State::read);

    unlink(other.c_str());
    ASSERT_EQ(symlink(path.c_str(), other.c_str()), 0);
    EXPECT_EQ(lookAtConsumerPipe(other).state, State::read);
}

TEST_F(ConsumerPipe, IsNotReadThroughAPipeThatWasThereBefore) {
    const Descriptor reading(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(lookAtConsumerPipe(path).state, State::noReader);
}

TEST_F(ConsumerPipe, NamesEveryReader) {
    const Descriptor mine(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const Child other([] {
        pause();
        return 0;
    });
    const PipeSnapshot snapshot = lookAtConsumerPipe(path);
    EXPECT_THAT(snapshot.readers, testing::UnorderedElementsAre(
                                      EndsWith(" " + me()), EndsWith(" (" + other.number() + ")")));
}

TEST_F(ConsumerPipe, IsReadByOneWhoWaitsForAWriterAndGoesOnWaiting) {
    Child reader([this] {
        const int reading = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        char letter = 0;
        return read(reading, &letter, 1) == 1 ? letter : 0;
    });
    const PipeSnapshot snapshot = await(State::read);
    EXPECT_EQ(snapshot.state, State::read);
    EXPECT_THAT(snapshot.readers, ElementsAre(EndsWith(" (" + reader.number() + ")")));
    // Had it been released, it would still be found, but by its descriptor.
    EXPECT_EQ(lookAtConsumerPipe(path).state, State::read);
    // It was still waiting, and what is written now is the first thing that it sees.
    const Descriptor writing(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_GE(writing.get(), 0);
    writeUnchecked(writing.get(), "y");
    EXPECT_EQ(reader.wait(), 'y');
}

TEST_F(ConsumerPipe, IsReadByOneWhoWaitsByARelativeName) {
    Child reader([this] {
        const Descriptor place(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        return ::openat(place.get(), "pipe", O_RDONLY | O_CLOEXEC) >= 0 ? 0 : 1;
    });
    EXPECT_EQ(await(State::read).state, State::read);
    Child other([this] {
        return chdir(folder.c_str()) == 0 && open("pipe", O_RDONLY | O_CLOEXEC) >= 0 ? 0 : 1;
    });
    PipeSnapshot snapshot = await(State::read);
    for (int i = 0; i < 2000 && snapshot.readers.size() < 2; ++i) {
        UTILITIES::sleepMilliSeconds(10);
        snapshot = lookAtConsumerPipe(path);
    }
    EXPECT_EQ(snapshot.readers.size(), 2U);
    const Descriptor writing(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(reader.wait(), 0);
    EXPECT_EQ(other.wait(), 0);
}

TEST_F(ConsumerPipe, IsNotReadByOneWhoWaitsForAReader) {
    const Child writer([this] { return open(path.c_str(), O_WRONLY | O_CLOEXEC) >= 0 ? 0 : 1; });
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(lookAtConsumerPipe(path).state, State::noReader);
        UTILITIES::sleepMilliSeconds(5);
    }
}

/// Opens the pipe for reading, as another user, and waits for a writer.
int waitAsNobody(const std::string& path) {
    return setgid(65534) == 0 && setuid(65534) == 0 && open(path.c_str(), O_RDONLY | O_CLOEXEC) >= 0
               ? 0
               : 1;
}

TEST_F(ConsumerPipe, TakesNobodysWordWhoMayNotOpenIt) {
    // His memory names the pipe, but he waits in the open of another one.
    const std::string other = folder + "/other";
    ASSERT_EQ(mkfifo(other.c_str(), 0666), 0);
    ASSERT_EQ(chmod(other.c_str(), 0666), 0);
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    const Child stranger([&other] { return waitAsNobody(other); });
    UTILITIES::sleepMilliSeconds(200);
    EXPECT_EQ(lookAtConsumerPipe(path).state, State::noReader);
    // Where everybody may open it, one who waits somewhere may be its reader.
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    EXPECT_EQ(await(State::unknown).state, State::unknown);
}

TEST_F(ConsumerPipe, IsReadByOneOfItsGroup) {
    ASSERT_EQ(chown(path.c_str(), 0, 65534), 0);
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    const Child reader([this] { return waitAsNobody(path); });
    EXPECT_EQ(await(State::read).state, State::read);
}

/// What another user, who may not look at this process, finds.
State asNobody(const std::string& path, bool reading) {
    Child other([&path, reading] {
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            return 100;
        }
        if (reading && open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC) < 0) {
            return 101;
        }
        return static_cast<int>(lookAtConsumerPipe(path).state);
    });
    return static_cast<State>(other.wait());
}

TEST_F(ConsumerPipe, IsUnknownToOneWhoMayNotLookAtAllProcesses) {
    EXPECT_EQ(asNobody(path, false), State::unknown);
}

TEST_F(ConsumerPipe, IsReadForOneWhoMayLookAtItsReader) {
    // A process that changed its user is no longer looked at by that user, until it runs another
    // program; here it looks at itself, which it always may.
    EXPECT_EQ(asNobody(path, true), State::read);
}

TEST_F(ConsumerPipe, IsUnknownToOneWhoMayNotLookAtThePath) {
    ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
    EXPECT_EQ(asNobody(path, false), State::unknown);
}

} // namespace

} // namespace control
