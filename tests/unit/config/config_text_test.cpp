// From the configuration file's bytes to its text, and to detector blocks.
#include "config/config_text.h"

#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string textOf(const std::string& file) {
    std::istringstream stream(file);
    return readConfigText(stream);
}

} // namespace

TEST(ReadConfigText, PutsALineFeedBeforeAndASpaceBehindEachLine) {
    EXPECT_EQ(textOf("logfile /var/log/x\nusrdir /data\n"), "\nlogfile /var/log/x \nusrdir /data ");
}

TEST(ReadConfigText, DropsEmptyAndBlankLines) {
    EXPECT_EQ(textOf("\n\na\n   \n \t\v\f\r \nb\n\n"), "\na \nb ");
    EXPECT_EQ(textOf(""), "");
}

TEST(ReadConfigText, DropsLinesWhoseFirstCharacterThatIsNoSpaceIsAHash) {
    EXPECT_EQ(textOf("# x\n   #y\n\t# z\na\n#"), "\na ");
}

TEST(ReadConfigText, KeepsAHashLaterInALine) {
    EXPECT_EQ(textOf("logfile /x # note\n"), "\nlogfile /x # note ");
}

TEST(ReadConfigText, DropsLeadingWhiteSpaceOfAnyKindAndKeepsTrailing) {
    EXPECT_EQ(textOf(" \t\v\f\rkey value \t\r\n"), "\nkey value \t\r ");
}

TEST(ReadConfigText, ReadsALastLineWithoutLineFeed) {
    EXPECT_EQ(textOf("a\nb"), "\na \nb ");
}

TEST(ReadConfigText, ReadsALineOf1023Characters) {
    const std::string line(1023, 'x');
    EXPECT_EQ(textOf(line + "\nnext\n"), "\n" + line + " \nnext ");
    EXPECT_EQ(textOf(line), "\n" + line + " ");
}

TEST(ReadConfigText, EndsSilentlyAtALineOf1024Characters) {
    EXPECT_EQ(textOf("a\n" + std::string(1024, 'x') + "\nnext\n"), "\na ");
    EXPECT_EQ(textOf("a\n" + std::string(1024, 'x')), "\na ");
}

TEST(ReadConfigText, EndsAtALongLineEvenIfItIsAComment) {
    EXPECT_EQ(textOf("a\n#" + std::string(1500, '-') + "\nnext\n"), "\na ");
}

TEST(ReadConfigText, CountsLeadingBlanksInTheLengthOfALine) {
    EXPECT_EQ(textOf("a\n" + std::string(1023, ' ') + "x\nnext\n"), "\na ");
}

TEST(ReadConfigText, TakesALineUpToItsNulByte) {
    EXPECT_EQ(textOf(std::string("a\0b\nc\n", 6)), "\na \nc ");
}

TEST(ReadConfigText, KeepsBytesBeyondAscii) {
    EXPECT_EQ(textOf("\xa0\xff key\n"), "\n\xa0\xff key ");
}

TEST(CutDetectorBlocks, GivesNoneWithoutTheKey) {
    EXPECT_THAT(cutDetectorBlocks(""), IsEmpty());
    EXPECT_THAT(cutDetectorBlocks("\nlogfile /x \ndetectorID\t1 "), IsEmpty());
}

TEST(CutDetectorBlocks, CutsFromKeyToKeyAndTheLastToTheEnd) {
    EXPECT_THAT(cutDetectorBlocks("\nuid 1 \ndetectorID A \nsource x \ndetectorID B \ntarget y "),
                ElementsAre("detectorID A \nsource x \n", "detectorID B \ntarget y "));
}

TEST(CutDetectorBlocks, StartsABlockInTheMiddleOfALineToo) {
    EXPECT_THAT(cutDetectorBlocks("\nnote detectorID A \nxdetectorID detectorID B "),
                ElementsAre("detectorID A \nx", "detectorID ", "detectorID B "));
}
