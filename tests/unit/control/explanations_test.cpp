// Lines of the log find their rows in the operator's guide.
#include "control/observe/log_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using testing::StartsWith;

TEST(ParseExplanations, TakesRowsWithALine) {
    const auto rows = parseExplanations("| line | cause | cure |\n|---|---|---|\n"
                                        "| `ID: a [b]`, `c NAME d` | why | |\n"
                                        "| no line | x | y |\n| `e...f` | x | y |\n");
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_THAT(rows[0].patterns, testing::ElementsAre("*: a \\[b]*", "c * d*"));
    EXPECT_EQ(rows[0].cause, "why");
    EXPECT_EQ(rows[0].cure, "");
    EXPECT_THAT(rows[1].patterns, testing::ElementsAre("e*f*"));
}

TEST(ExplanationOf, IsThatOfTheGuide) {
    const auto cause = [](const std::string& line) {
        const Explanation* const found = explanationOf(line);
        return found == nullptr ? std::string() : found->cause;
    };
    EXPECT_THAT(cause("7: Error: Listing failed"), StartsWith("The listing could not be started"));
    EXPECT_THAT(cause("Error: Lost run1/a.raw"), StartsWith("Sent, but not confirmed"));
    EXPECT_THAT(cause("++ Warning: No pipe to VANTREL"), StartsWith("The pipe is not there"));
    EXPECT_THAT(cause("rsync: [receiver] mkstemp \"/x/.a\" (in r) failed: No space left on device "
                      "(28)"),
                StartsWith("The target is full"));
    EXPECT_THAT(cause("rsync error: error in socket IO (code 10) at clientserver.c(125)"),
                StartsWith("How rsync ended"));
    EXPECT_EQ(cause("something else"), "");
}

} // namespace

} // namespace control
