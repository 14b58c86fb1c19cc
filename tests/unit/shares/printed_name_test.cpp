// File names as rsync prints them, and back.
#include "shares/printed_name.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace confirming {
namespace {

using namespace std::string_literals;

TEST(PrintedName, KeepsOrdinaryNamesAsTheyAre) {
    for (const std::string& name : {"a"s, "dir/b c"s, "tab\there"s, "q\"'"s, "\xe4\xff\x80"s,
                                    "\x7f"s, "back\\slash"s, "\\#12"s, "\\#12x"s, "#012"s, ""s}) {
        EXPECT_EQ(printedName(name), name);
        EXPECT_EQ(unprintedName(name), name);
    }
}

TEST(PrintedName, EscapesControlCharactersInOctal) {
    EXPECT_EQ(printedName("a\nb"), "a\\#012b");
    EXPECT_EQ(printedName("\x1b[1m\r"), "\\#033[1m\\#015");
    EXPECT_EQ(printedName("\0"s), "\\#000");
}

TEST(PrintedName, EscapesWhatWouldReadAsAnEscape) {
    EXPECT_EQ(printedName("\\#012"), "\\#134#012");
    EXPECT_EQ(printedName("\\\\#012"), "\\\\#134#012");
    EXPECT_EQ(printedName("\\#999"), "\\#134#999");
}

TEST(PrintedName, ReadsBackWhatRsyncPrints) {
    EXPECT_EQ(unprintedName("no\\#012l"), "no\nl");
    EXPECT_EQ(unprintedName("\\#134#012"), "\\#012");
    EXPECT_EQ(unprintedName("\\\\#134#012"), "\\\\#012");
    EXPECT_EQ(unprintedName("\\#377\\#000"), "\377\0"s);
}

TEST(PrintedName, LeavesAloneWhatIsNoByte) {
    EXPECT_EQ(unprintedName("\\#400"), "\\#400");
    EXPECT_EQ(unprintedName("\\#08"), "\\#08");
    EXPECT_EQ(unprintedName("\\#018"), "\\#018");
}

TEST(PrintedName, BringsBackAnyName) {
    // Every name of up to seven characters that can make or break an escape.
    const std::string alphabet = "\\#017\n";
    std::vector<std::string> names{""};
    for (std::size_t at = 0; at < names.size() && names[at].size() < 7; ++at) {
        for (const char character : alphabet) {
            names.push_back(names[at]);
            names.back() += character;
        }
    }
    for (const std::string& name : names) {
        const std::string printed = printedName(name);
        ASSERT_EQ(unprintedName(printed), name) << printed;
        ASSERT_EQ(printed.find('\n'), std::string::npos) << printed;
    }
}

TEST(WithoutControls, ShowsWhatATerminalMayObeyAndRsyncLetsPass) {
    EXPECT_EQ(withoutControls("a\x7f\x80\x9b[1m\x9f\xa0\xff\t\x1b\\#233", 100),
              "a\\#177\\#200\\#233[1m\\#237\xa0\xff\t\x1b\\#233");
    EXPECT_EQ(withoutControls("", 100), "");
}

TEST(WithoutControls, CutsOff) {
    EXPECT_EQ(withoutControls("abcdef", 6), "abcdef");
    EXPECT_EQ(withoutControls("abcdef", 5), "abcde");
    EXPECT_EQ(withoutControls("abc\x80", 6), "abc\\#2");
}

TEST(StaysBelow, HoldsForWhatIsBelow) {
    for (const char* name : {"a", "a/b", ".", "a/./b", "..a", "a..", "...", "a/..b/c", "-e", " "}) {
        EXPECT_TRUE(staysBelow(name)) << name;
    }
    for (const char* name : {"", "/", "/a", "..", "../a", "a/..", "a/../b", "a/../../b"}) {
        EXPECT_FALSE(staysBelow(name)) << name;
    }
}

} // namespace
} // namespace confirming
