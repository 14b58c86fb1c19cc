// What a PID file and a status file may hold, and what is made of it.
#include "control/control_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
