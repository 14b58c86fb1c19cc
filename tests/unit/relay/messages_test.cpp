// What the relay tells its operator.
#include "relay/messages.h"

#include <string>

#include <gtest/gtest.h>

namespace relay {

namespace {

TEST(Shown, LeavesWhatPeopleRead) {
    EXPECT_EQ(shown("sh: \u2018a b\u2019: \u4e0d"), "sh: \u2018a b\u2019: \u4e0d");
}

TEST(Shown, EscapesWhatSteersATerminalAndWhatIsNoText) {
    EXPECT_EQ(shown("a\nb\x1b[31m\x7f"), "a\\012b\\033[31m\\177");
    EXPECT_EQ(shown("\u009b31m"), "\\302\\23331m");
    const std::string turning = std::string("\xe2\x80") + '\xae'; // what follows runs to the left
    EXPECT_EQ(shown("fdp." + turning + "gnp"), "fdp.\\342\\200\\256gnp");
    EXPECT_EQ(shown("half \xe2\x80"), "half \\342\\200");
}

TEST(Shown, CutsOffWhatIsLong) {
    EXPECT_EQ(shown(std::string(500, 'x')), std::string(500, 'x'));
    EXPECT_EQ(shown(std::string(501, 'x')), std::string(500, 'x') + "...");
}

} // namespace

} // namespace relay
