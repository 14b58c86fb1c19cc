// Owning, moving and shielding file descriptors.
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/settings_test.h"
#include "utilities/descriptors.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

bool isOpen(int descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

bool closesOnExec(int descriptor) {
    return (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0;
}

void closeStandardDescriptors() {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
}

/// Which of 0, 1 and 2 are open, as "0", "12", …
std::string openStandardDescriptors() {
    std::string open;
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
        if (isOpen(descriptor)) {
            open += std::to_string(descriptor);
        }
    }
    return open;
}

class Descriptors : public SettingsTest {
protected:
    /// Shell command that writes which of 0, 1 and 2 it was started with.
    std::string standardDescriptorsCommand() const {
        // The redirection to 9 leaves the three alone.
        return "for d in 0 1 2; do if [ -e /proc/self/fd/$d ]; then printf %s $d >&9; fi; done 9>" +
               (scratch / "seen");
    }
};

class MoveAboveStandard : public Descriptors {};
class StandardDescriptorsShieldTest : public Descriptors {
protected:
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};
class WriteAll : public Descriptors {};

} // namespace

TEST_F(Descriptors, ClosesWhatItOwns) {
    int number = -1;
    {
        const Descriptor owner(open("/dev/null", O_RDONLY));
        number = owner.get();
        ASSERT_TRUE(isOpen(number));
    }
    EXPECT_FALSE(isOpen(number));
}

TEST_F(Descriptors, HandsOverToTheOneItIsMovedTo) {
    Descriptor first(open("/dev/null", O_RDONLY));
    const int number = first.get();
    Descriptor second(std::move(first));
    EXPECT_EQ(second.get(), number);
    Descriptor third(open("/dev/null", O_RDONLY));
    const int replaced = third.get();
    third = std::move(second);
    EXPECT_FALSE(isOpen(replaced));
    EXPECT_EQ(third.get(), number);
    EXPECT_TRUE(isOpen(number));
}

TEST_F(Descriptors, KeepsItsDescriptorWhenAssignedToItself) {
    Descriptor owner(open("/dev/null", O_RDONLY));
    Descriptor& same = owner;
    owner = std::move(same);
    EXPECT_GE(owner.get(), 0);
    EXPECT_TRUE(isOpen(owner.get()));
}

TEST_F(Descriptors, LeavesAReleasedDescriptorToTheCaller) {
    Descriptor owner(open("/dev/null", O_RDONLY));
    const int number = owner.release();
    EXPECT_EQ(owner.get(), -1);
    owner.reset();
    EXPECT_TRUE(isOpen(number));
    close(number);
}

TEST_F(Descriptors, ResetsOnlyOnce) {
    Descriptor owner(open("/dev/null", O_RDONLY));
    const int number = owner.get();
    owner.reset();
    EXPECT_EQ(owner.get(), -1);
    EXPECT_FALSE(isOpen(number));
    // Someone else's now: a second reset must not touch it.
    const Descriptor other(open("/dev/null", O_RDONLY));
    owner.reset();
    EXPECT_TRUE(isOpen(other.get()));
}

TEST_F(MoveAboveStandard, LeavesAHigherDescriptorAndClosesItOnExec) {
    const int before = open("/dev/null", O_RDONLY);
    ASSERT_GT(before, STDERR_FILENO);
    ASSERT_FALSE(closesOnExec(before));
    EXPECT_EQ(moveAboveStandard(before), before);
    EXPECT_TRUE(closesOnExec(before));
    close(before);
}

TEST_F(MoveAboveStandard, PassesAFailedOpenThroughWithItsError) {
    errno = ENOENT;
    EXPECT_EQ(moveAboveStandard(-1), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(MoveAboveStandard, MovesEachOfTheThreeAndFreesItsNumber) {
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        const ChildOutcome outcome = runInChild([standard] {
            close(standard);
            const int low = open("/dev/null", O_RDONLY);
            const int moved = moveAboveStandard(low);
            return std::to_string(low) + (moved > STDERR_FILENO ? " moved" : " kept") +
                   (isOpen(low) ? " open" : " closed") +
                   (closesOnExec(moved) ? " cloexec" : " inherited");
        });
        EXPECT_EQ(outcome.result, std::to_string(standard) + " moved closed cloexec");
    }
}

TEST_F(MoveAboveStandard, ClosesTheOriginalAndSaysSoWhenNoOtherCanBeHad) {
    const ChildOutcome outcome = runInChild([] {
        close(STDIN_FILENO);
        const int low = open("/dev/null", O_RDONLY);
        rlimit before = {};
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit limit = {3, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
        const int moved = moveAboveStandard(low);
        const int error = errno;
        // The end of a process may need some (a sanitizer's does).
        setrlimit(RLIMIT_NOFILE, &before);
        return std::to_string(moved) + (isOpen(low) ? " open" : " closed") +
               (error == EMFILE ? " limit" : " other");
    });
    EXPECT_EQ(outcome.result, "-1 closed limit");
}

TEST_F(Descriptors, WritesUncheckedTextAndSurvivesABadDescriptor) {
    const std::string path = scratch / "file";
    {
        const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT, 0600));
        writeUnchecked(file.get(), std::string_view("a\0b", 3));
    }
    writeUnchecked(-1, "lost");
    EXPECT_EQ(readFile(path), std::string("a\0b", 3));
}

TEST_F(WriteAll, WritesTextThatDoesNotFitAPipeAtOnce) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string text(300000, 'x');
    std::string received;
    std::thread reader([&] {
        char buffer[4096];
        ssize_t count = 0;
        while ((count = read(ends[0], buffer, sizeof buffer)) > 0) {
            received.append(buffer, static_cast<std::size_t>(count));
        }
    });
    EXPECT_TRUE(writeAll(ends[1], text));
    close(ends[1]);
    reader.join();
    close(ends[0]);
    EXPECT_EQ(received, text);
}

TEST_F(WriteAll, ContinuesBehindAShortWrite) {
    // A file may grow to the limit only: the write that crosses it is short, the next one fails.
    const std::string path = scratch / "file";
    const ChildOutcome outcome = runInChild([&path] {
        signal(SIGXFSZ, SIG_IGN);
        const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT, 0600));
        rlimit before = {};
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit limit = {1000, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        const bool written = writeAll(file.get(), std::string(1500, 'x'));
        const int error = errno;
        setrlimit(RLIMIT_FSIZE, &before);
        return std::string(written ? "written" : "failed") + (error == EFBIG ? " EFBIG" : "");
    });
    EXPECT_EQ(outcome.result, "failed EFBIG");
    EXPECT_EQ(readFile(path), std::string(1000, 'x'));
}

TEST_F(WriteAll, FailsOnABadDescriptorAndSucceedsOnNothing) {
    EXPECT_FALSE(writeAll(-1, "text"));
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(writeAll(-1, ""));
}

TEST_F(StandardDescriptorsShieldTest, KeepsNewDescriptorsAboveTheThree) {
    const ChildOutcome outcome = runInChild([this] {
        closeStandardDescriptors();
        const StandardDescriptorsShield shield(&mutex);
        const Descriptor opened(open("/dev/null", O_RDONLY));
        return std::string(opened.get() > STDERR_FILENO ? "above" : "below");
    });
    EXPECT_EQ(outcome.result, "above");
}

TEST_F(StandardDescriptorsShieldTest, GivesTheThreeBack) {
    const ChildOutcome outcome = runInChild([this] {
        closeStandardDescriptors();
        { const StandardDescriptorsShield shield(&mutex); }
        return "open: " + openStandardDescriptors();
    });
    EXPECT_EQ(outcome.result, "open: ");
}

TEST_F(StandardDescriptorsShieldTest, LetsThemGoWithTheLastOfSeveralShields) {
    const ChildOutcome outcome = runInChild([this] {
        closeStandardDescriptors();
        std::string seen;
        {
            const StandardDescriptorsShield outer(&mutex);
            { const StandardDescriptorsShield inner(&mutex); }
            seen = openStandardDescriptors();
        }
        return seen + "/" + openStandardDescriptors();
    });
    EXPECT_EQ(outcome.result, "012/");
}

TEST_F(StandardDescriptorsShieldTest, FillsWhatHasBecomeFreeSinceTheFirstShieldCame) {
    const ChildOutcome outcome = runInChild([this] {
        close(STDOUT_FILENO);
        std::string seen;
        {
            const StandardDescriptorsShield outer(&mutex);
            close(STDERR_FILENO);
            const StandardDescriptorsShield inner(&mutex);
            seen = openStandardDescriptors();
        }
        return seen + "/" + openStandardDescriptors();
    });
    EXPECT_EQ(outcome.result, "012/0");
}

TEST_F(StandardDescriptorsShieldTest, FillsOnlyWhatIsFree) {
    const ChildOutcome outcome = runInChild([this] {
        close(STDOUT_FILENO);
        std::string seen;
        {
            const StandardDescriptorsShield shield(&mutex);
            seen = openStandardDescriptors();
        }
        return seen + "/" + openStandardDescriptors();
    });
    EXPECT_EQ(outcome.result, "012/02");
}

TEST_F(StandardDescriptorsShieldTest, LeavesOpenStandardDescriptorsAlone) {
    const ChildOutcome outcome = runInChild([this] {
        { const StandardDescriptorsShield shield(&mutex); }
        return openStandardDescriptors();
    });
    EXPECT_EQ(outcome.result, "012");
}

TEST_F(StandardDescriptorsShieldTest, GivesAChildNoneOfTheThree) {
    const ChildOutcome outcome = runInChild([this] {
        closeStandardDescriptors();
        const StandardDescriptorsShield shield(&mutex);
        return std::to_string(system(standardDescriptorsCommand().c_str()));
    });
    EXPECT_EQ(outcome.result, "0");
    EXPECT_EQ(readFile(scratch / "seen"), "");
}

TEST_F(StandardDescriptorsShieldTest, KeepsAChildsComplaintOutOfAFileThatAnotherThreadOpens) {
    const ChildOutcome outcome = runInChild([this] {
        closeStandardDescriptors();
        const StandardDescriptorsShield shield(&mutex);
        int number = -1;
        // Not closed on exec: without the shield these would be the child's 0, 1 and 2.
        std::thread other([this, &number] {
            for (const char* name : {"a", "b", "c"}) {
                number = open((scratch / name).c_str(), O_WRONLY | O_CREAT, 0600);
            }
        });
        other.join();
        const int status = system("mkdir /proc/nothing_can_be_made_here");
        return std::string(status != 0 ? "complained" : "succeeded");
    });
    EXPECT_EQ(outcome.result, "complained");
    EXPECT_EQ(readFile(scratch / "a") + readFile(scratch / "b") + readFile(scratch / "c"), "");
}

TEST_F(StandardDescriptorsShieldTest, WouldNotBeNeededIfTheComplaintWentNowhere) {
    // The same without a shield: the complaint lands in the third file. Should this fail one day,
    // the test above proves nothing any more.
    const ChildOutcome outcome = runInChild([this] {
        closeStandardDescriptors();
        for (const char* name : {"a", "b", "c"}) {
            if (open((scratch / name).c_str(), O_WRONLY | O_CREAT, 0600) < 0) {
                return std::string("no file");
            }
        }
        const int status = system("mkdir /proc/nothing_can_be_made_here");
        return std::string(status != 0 ? "complained" : "succeeded");
    });
    EXPECT_EQ(outcome.result, "complained");
    EXPECT_NE(readFile(scratch / "c"), "");
}

TEST_F(StandardDescriptorsShieldTest, CanBeTakenByManyThreadsAtOnce) {
    const ChildOutcome outcome = runInChild([this] {
        closeStandardDescriptors();
        bool above[4] = {true, true, true, true};
        std::vector<std::thread> threads;
        for (bool& result : above) {
            threads.emplace_back([this, &result] {
                for (int i = 0; i < 200; ++i) {
                    const StandardDescriptorsShield shield(&mutex);
                    const Descriptor opened(open("/dev/null", O_RDONLY | O_CLOEXEC));
                    result = result && opened.get() > STDERR_FILENO;
                }
            });
        }
        std::string seen;
        for (std::size_t i = 0; i < threads.size(); ++i) {
            threads[i].join();
            seen += above[i] ? "+" : "-";
        }
        return seen + openStandardDescriptors();
    });
    EXPECT_EQ(outcome.result, "++++");
}
