// Writing the PID file.
#include "tests/unit/support/settings_test.h"
#include "utilities/pid_file.h"

#include <string>

#include <gtest/gtest.h>
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

TEST_F(SetPidFile, MakesTheFileReadableForAllAndWritableForItsOwnerUnderAUmaskOfZero) {
    const mode_t before = umask(0);
    setPidFile(path, {});
    umask(before);
    EXPECT_EQ(permissions(path), 0644U);
}
