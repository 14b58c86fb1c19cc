// Pipes, and the descriptors that the program was started with.
#include "confirming_rsync/descriptors.h"

#include <cstdlib>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace confirming {
namespace {

bool isOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) != -1;
}

bool isDevNull(int descriptor) {
    struct stat one {};
    struct stat other {};
    return ::fstat(descriptor, &one) == 0 && ::stat("/dev/null", &other) == 0 &&
           one.st_rdev == other.st_rdev && S_ISCHR(one.st_mode);
}

/// Runs the function in a child process, whose descriptors it may spoil; true if it returned true.
template<typename Function>
bool holdsInChild(Function function) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(function() ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(Pipe, IsClosedInEveryProgramStarted) {
    const Pipe pipe = makePipe();
    ASSERT_TRUE(pipe.readEnd && pipe.writeEnd);
    EXPECT_EQ(::fcntl(pipe.readEnd.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(pipe.writeEnd.get(), F_GETFD), FD_CLOEXEC);
}

TEST(StandardDescriptors, AreFilledWhereTheyAreMissing) {
    for (int missing = 0; missing < 8; ++missing) {
        EXPECT_TRUE(holdsInChild([missing] {
            for (int descriptor = 0; descriptor <= 2; ++descriptor) {
                const int file = ::open("/etc/passwd", O_RDONLY);
                ::dup2(file, descriptor);
                ::close(file);
            }
            for (int descriptor = 0; descriptor <= 2; ++descriptor) {
                if ((missing & (1 << descriptor)) != 0) {
                    ::close(descriptor);
                }
            }
            bool right = fillStandardDescriptors();
            for (int descriptor = 0; descriptor <= 2; ++descriptor) {
                const bool wasMissing = (missing & (1 << descriptor)) != 0;
                right = right && isOpen(descriptor) && isDevNull(descriptor) == wasMissing;
            }
            return right;
        })) << missing;
    }
}

TEST(InheritedDescriptors, AreClosedFromThreeOn) {
    EXPECT_TRUE(holdsInChild([] {
        const int low = ::open("/dev/null", O_RDONLY);
        const int high = ::fcntl(low, F_DUPFD, 200);
        closeInheritedDescriptors();
        return low >= 3 && high >= 200 && !isOpen(low) && !isOpen(high) && isOpen(0) && isOpen(1) &&
               isOpen(2);
    }));
}

} // namespace
} // namespace confirming
