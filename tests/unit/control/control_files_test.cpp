// What a PID file and a status file may hold, and what is made of it.
#include "control/control_files.h"

#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace control {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(ParsePidFile, GivesTheDaemonAndItsCopyProcessesInTheirOrder) {
    const PidFile file = parsePidFile("812\n905\n903\n");
    EXPECT_EQ(file.state, PidFile::State::whole);
    EXPECT_EQ(file.daemon, 812);
    EXPECT_THAT(file.copyProcesses, ElementsAre(905, 903));
}

TEST(ParsePidFile, NeedsNoCopyProcess) {
    const PidFile file = parsePidFile("812\n");
    EXPECT_EQ(file.state, PidFile::State::whole);
    EXPECT_EQ(file.daemon, 812);
    EXPECT_THAT(file.copyProcesses, IsEmpty());
}

class DamagedPidFile : public testing::TestWithParam<const char*> {};

TEST_P(DamagedPidFile, IsNotBelievedInAnyLine) {
    const PidFile file = parsePidFile(GetParam());
    EXPECT_EQ(file.state, PidFile::State::damaged);
    EXPECT_FALSE(file.problem.empty());
    EXPECT_EQ(file.daemon, 0);
    EXPECT_THAT(file.copyProcesses, IsEmpty());
}

// The negative and the small numbers are what kill() takes for "everyone" or the system's first
// process.
INSTANTIATE_TEST_SUITE_P(Texts, DamagedPidFile,
                         testing::Values("", "812", "812\n90", "\n", "812\n\n", "\n812\n", "0\n",
                                         "1\n", "-1\n", "812\n-1\n", "812\n0\n", "812 \n", " 812\n",
                                         "+812\n", "0812\n", "0x32c\n", "812\r\n", "8 12\n",
                                         "skarn\n", "99999999999999999999\n", "812\n4294967297\n",
                                         "812.5\n", "812\nkill 1\n"));

TEST(ParsePidFile, BelievesNoLineOfATextThatIsTooLong) {
    std::string text = "812\n";
    while (text.size() < pidFileLimit) {
        text += "1234567\n";
    }
    ASSERT_GT(text.size(), pidFileLimit);
    const PidFile file = parsePidFile(text);
    EXPECT_EQ(file.state, PidFile::State::damaged);
    EXPECT_EQ(file.problem, "it is longer than 65536 bytes");
    EXPECT_EQ(file.daemon, 0);
}

class PidFilePlace : public testing::Test {
protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        unlink(path.c_str());
        rmdir(path.c_str());
    }
    const std::string path = pidFilePath();
};

TEST_F(PidFilePlace, MayBeEmpty) {
    EXPECT_EQ(readPidFile().state, PidFile::State::absent);
}

TEST_F(PidFilePlace, HoldsAFileWithATimeAndAnOwner) {
    std::ofstream(path) << "812\n905\n";
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    const PidFile file = readPidFile();
    EXPECT_EQ(file.state, PidFile::State::whole);
    EXPECT_THAT(file.copyProcesses, ElementsAre(905));
    EXPECT_NEAR(file.written, static_cast<double>(status.st_mtim.tv_sec), 1);
    EXPECT_EQ(file.owner, geteuid());
}

TEST_F(PidFilePlace, IsNotReadToItsEndWhenThatIsFar) {
    std::ofstream(path) << "812\n";
    ASSERT_EQ(truncate(path.c_str(), off_t{1} << 40), 0);
    EXPECT_EQ(readPidFile().state, PidFile::State::damaged);
}

TEST_F(PidFilePlace, MustHoldARegularFile) {
    const std::string notRegular = path + " cannot be read: not a regular file";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(readPidFile().problem, notRegular);
    unlink(path.c_str());
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(readPidFile().problem, path + " cannot be read: it is a directory");
    rmdir(path.c_str());
    std::ofstream("/tmp/planted") << "812\n";
    ASSERT_EQ(symlink("/tmp/planted", path.c_str()), 0);
    const PidFile file = readPidFile();
    EXPECT_EQ(file.state, PidFile::State::unreadable);
    EXPECT_EQ(file.problem, path + " cannot be read: it is a symbolic link");
    EXPECT_EQ(file.daemon, 0);
}

TEST(ParseStatusFile, GivesTheNumberOfCopyProcesses) {
    EXPECT_EQ(parseStatusFile("njobs 8\n"), 8);
    EXPECT_EQ(parseStatusFile("njobs 12\n"), 12);
}

TEST(ParseStatusFile, GivesNothingForAnyOtherText) {
    for (const char* const text : {"", "njobs 8", "njobs \n", "njobs", "8\n", "njobs x\n",
                                   "njobs 8\n\n", "njobs -8\n", "njobs 8 9\n"}) {
        EXPECT_EQ(parseStatusFile(text), std::nullopt) << text;
    }
}

} // namespace

} // namespace control
