// What is held against a password file and a copy program.
#include "control/check/findings.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct stat fileOf(mode_t mode, uid_t owner = 0, mode_t type = S_IFREG) {
    struct stat status = {};
    status.st_mode = type | mode;
    status.st_uid = owner;
    return status;
}

std::vector<std::string> codesOf(const Findings& findings) {
    std::vector<std::string> codes;
    for (const Finding& finding : findings) {
        EXPECT_EQ(finding.about, Finding::About::host);
        codes.push_back((finding.severity == Severity::warning ? "warning " : "error ") +
                        finding.code);
    }
    return codes;
}

TEST(JudgePasswordFile, LikesAFileOfRootsThatNobodyElseReads) {
    EXPECT_THAT(codesOf(judgePasswordFile(fileOf(0600), "secret\n")), IsEmpty());
    EXPECT_THAT(codesOf(judgePasswordFile(fileOf(0400), "\n\nsecret")), IsEmpty());
}

TEST(JudgePasswordFile, TellsWhatRsyncWouldRefuse) {
    EXPECT_THAT(codesOf(judgePasswordFile(fileOf(0644), "x")), ElementsAre("error password-file"));
    EXPECT_THAT(codesOf(judgePasswordFile(fileOf(0602), "x")), ElementsAre("error password-file"));
    EXPECT_THAT(codesOf(judgePasswordFile(fileOf(0640), "x")),
                ElementsAre("warning password-file"));
    EXPECT_THAT(codesOf(judgePasswordFile(fileOf(0600, 1000), "x")),
                ElementsAre("error password-file"));
    EXPECT_THAT(codesOf(judgePasswordFile(fileOf(0600), "")), ElementsAre("error password-file"));
    EXPECT_THAT(codesOf(judgePasswordFile(fileOf(0600), "\r\n\n")),
                ElementsAre("error password-file"));
    EXPECT_THAT(codesOf(judgePasswordFile(fileOf(0755, 0, S_IFDIR), "")),
                ElementsAre("error password-file"));
    EXPECT_THAT(codesOf(judgePasswordFile(fileOf(0666, 1000), "")),
                ElementsAre("error password-file", "error password-file", "error password-file"));
}

const std::string binary = "\177ELF...";

TEST(JudgeCopyProgram, LikesAProgramOfRoots) {
    EXPECT_THAT(codesOf(judgeCopyProgram(fileOf(0755), "#!/bin/sh\n")), IsEmpty());
    EXPECT_THAT(codesOf(judgeCopyProgram(fileOf(0700), binary)), IsEmpty());
    EXPECT_THAT(
        codesOf(judgeCopyProgram(fileOf(0755), binary + "remove-source-files confirm-files")),
        IsEmpty());
}

TEST(JudgeCopyProgram, TellsWhatKeepsItFromRunning) {
    EXPECT_THAT(codesOf(judgeCopyProgram(fileOf(0655), binary)), ElementsAre("error copy-program"));
    EXPECT_THAT(codesOf(judgeCopyProgram(fileOf(0755, 0, S_IFDIR), "")),
                ElementsAre("error copy-program"));
    EXPECT_THAT(codesOf(judgeCopyProgram(fileOf(0755), binary + "remove-source-files")),
                ElementsAre("error copy-program"));
}

TEST(JudgeCopyProgram, TellsWhoElseMayChangeIt) {
    EXPECT_THAT(codesOf(judgeCopyProgram(fileOf(0775), binary)),
                ElementsAre("warning copy-program"));
    EXPECT_THAT(codesOf(judgeCopyProgram(fileOf(0757), binary)),
                ElementsAre("warning copy-program"));
    EXPECT_THAT(codesOf(judgeCopyProgram(fileOf(0755, 1000), binary)),
                ElementsAre("warning copy-program"));
}

} // namespace

} // namespace control
