// Text of any bytes becomes text that steers no terminal and has a known width.
#include "control/display_text.h"

#include <clocale>
#include <cmath>

#include <gtest/gtest.h>

namespace control {

namespace {

class DisplayText : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr); }
    void TearDown() override { std::setlocale(LC_CTYPE, "C"); }
};

TEST_F(DisplayText, LeavesVisibleCharactersAlone) {
    EXPECT_EQ(displayable("frame_01.raw ~", true), "frame_01.raw ~");
    EXPECT_EQ(displayable("größe 測定", true), "größe 測定");
}

TEST_F(DisplayText, ShowsControlCharactersInOctal) {
    EXPECT_EQ(displayable("a\033[2Jb\n\t\x7f", true), "a\\033[2Jb\\012\\011\\177");
    EXPECT_EQ(displayable(std::string_view("a\0b", 3), true), "a\\000b");
    EXPECT_EQ(displayable("\xc2\x9b"
                          "31m", // CSI as one character
                          true),
              "\\302\\23331m");
}

TEST_F(DisplayText, ShowsWhatTurnsTheDirectionOfWritingInOctal) {
    EXPECT_EQ(displayable(std::string("gpj.") + '\xe2' + '\x80' + '\xae' + "exe", true),
              "gpj.\\342\\200\\256exe");
}

TEST_F(DisplayText, ShowsWhatIsNoUtf8InOctal) {
    EXPECT_EQ(displayable("\xff", true), "\\377");
    EXPECT_EQ(displayable("\xc3", true), "\\303");                   // cut off
    EXPECT_EQ(displayable("\xc3(", true), "\\303(");                 // not continued
    EXPECT_EQ(displayable("\xc0\xaf", true), "\\300\\257");          // overlong
    EXPECT_EQ(displayable("\xed\xa0\x80", true), "\\355\\240\\200"); // surrogate
    EXPECT_EQ(displayable("\xf4\x90\x80\x80", true), "\\364\\220\\200\\200");
}

TEST_F(DisplayText, KeepsToAsciiForATerminalThatKnowsNoMore) {
    EXPECT_EQ(displayable("größe", false), "gr\\303\\266\\303\\237e");
}

TEST_F(DisplayText, CountsColumnsNotBytes) {
    EXPECT_EQ(displayWidth("größe"), 5);
    EXPECT_EQ(displayWidth("測定"), 4);
    EXPECT_EQ(displayWidth(""), 0);
}

TEST_F(DisplayText, CutsAtTheEnd) {
    EXPECT_EQ(cut("frame", 5, true), "frame");
    EXPECT_EQ(cut("frames", 5, true), "fram…");
    EXPECT_EQ(cut("frames", 5, false), "fra..");
    EXPECT_EQ(cut("frames", 1, false), "f");
    EXPECT_EQ(cut("frames", 0, true), "");
    EXPECT_EQ(cut("frames", -3, true), "");
}

TEST_F(DisplayText, NeverCutsACharacterInTwo) {
    EXPECT_EQ(cut("測定測定", 4, true), "測…");
    EXPECT_EQ(cut("測定測定", 6, true), "測定…");
    EXPECT_EQ(cut("ää測定öö", 6, true, true), "ää…öö");
}

TEST_F(DisplayText, CutsNamesInTheMiddle) {
    EXPECT_EQ(cut("frame_000123.raw", 16, true, true), "frame_000123.raw");
    EXPECT_EQ(cut("frame_000123.raw", 11, true, true), "frame…3.raw");
    EXPECT_EQ(cut("frame_000123.raw", 10, false, true), "fram...raw");
    EXPECT_EQ(cut("frame", 2, true, true), "f…");
    EXPECT_EQ(cut("frame", 0, true, true), "");
}

TEST(NumberText, GroupsThousands) {
    EXPECT_EQ(grouped(0), "0");
    EXPECT_EQ(grouped(999), "999");
    EXPECT_EQ(grouped(1000), "1,000");
    EXPECT_EQ(grouped(18446744073709551615ULL), "18,446,744,073,709,551,615");
}

TEST(NumberText, NamesBytesInStepsOf1024) {
    EXPECT_EQ(byteText(0), "0 B");
    EXPECT_EQ(byteText(1023), "1023 B");
    EXPECT_EQ(byteText(1024), "1.0 KiB");
    EXPECT_EQ(byteText(99UL * 1024), "99.0 KiB");
    EXPECT_EQ(byteText(1023UL * 1024), "1023 KiB");
    EXPECT_EQ(byteText(1024UL * 1024 - 1), "1.0 MiB");
    EXPECT_EQ(byteText(18446744073709551615ULL), "16.0 EiB");
}

TEST(NumberText, NamesDurationsByWhatMatters) {
    EXPECT_EQ(durationText(-5), "0 s");
    EXPECT_EQ(durationText(59.9), "59 s");
    EXPECT_EQ(durationText(60), "1 min");
    EXPECT_EQ(durationText(3600), "1 h 0 min");
    EXPECT_EQ(durationText(86400 * 4 + 3 * 3600), "4 d 3 h");
    EXPECT_EQ(durationText(1e300), "more than 30 years");
    EXPECT_EQ(durationText(std::nan("")), "more than 30 years");
}

TEST(NumberText, NamesRates) {
    EXPECT_EQ(rateText(0), "0");
    EXPECT_EQ(rateText(-1), "0");
    EXPECT_EQ(rateText(0.01), "0.1");
    EXPECT_EQ(rateText(9.94), "9.9");
    EXPECT_EQ(rateText(1234.4), "1,234");
}

} // namespace

} // namespace control
