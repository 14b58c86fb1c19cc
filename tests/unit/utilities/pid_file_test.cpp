// Writing the PID file.
#include "tests/unit/support/faults.h"
#include "tests/unit/support/settings_test.h"
#include "utilities/pid_file.h"

#include <cerrno>
#include <string>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using UTILITIES::setPidFile;

namespace {

class SetPidFile : public SettingsTest {
protected:
    const std::string path = scratch / "pid";
    const std::string self = std::to_string(getpid()) + "\n";
};

} // namespace

TEST_F(SetPidFile, WritesTheCallersIdAloneForAnEmptyList) {
    EXPECT_EQ(setPidFile(path, {}), 0);
    EXPECT_EQ(readFile(path), self);
}

TEST_F(SetPidFile, WritesTheListInItsOrderAndSkipsZeros) {
    EXPECT_EQ(setPidFile(path, {0, 7001, 0, 42}), 0);
    EXPECT_EQ(readFile(path), self + "7001\n42\n");
}

TEST_F(SetPidFile, ReplacesALongerFile) {
    writeFile(path, std::string(5000, 'x'));
    EXPECT_EQ(setPidFile(path, {1}), 0);
    EXPECT_EQ(readFile(path), self + "1\n");
}

TEST_F(SetPidFile, Gives64AndWritesNothingWhenTheFileCannotBeOpened) {
    EXPECT_EQ(setPidFile(scratch / "missing/pid", {1}), 64);
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    EXPECT_EQ(setPidFile(path, {1}), 64);
    EXPECT_TRUE(namesIn(path).empty());
}

TEST_F(SetPidFile, LeavesAFileAsItIsThatItCannotOpen) {
    writeFile(path, "4711\n4712\n");
    // Without a descriptor not even root can open a file that stands there.
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = setPidFile(path, {1});
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(result, 64);
    EXPECT_EQ(readFile(path), "4711\n4712\n");
}

TEST_F(SetPidFile, WritesNothingAfterAWriteThatFailed) {
    FAULTS::write.failAfter(0, ENOSPC);
    EXPECT_EQ(setPidFile(path, {7001, 42}), 0);
    EXPECT_EQ(readFile(path), "") << "a copy process in line 1 would pass for the daemon";
}

TEST_F(SetPidFile, MakesTheFileReadableForAllAndWritableForItsOwnerUnderAUmaskOfZero) {
    const mode_t before = umask(0);
    setPidFile(path, {});
    umask(before);
    EXPECT_EQ(permissions(path), 0644U);
}
