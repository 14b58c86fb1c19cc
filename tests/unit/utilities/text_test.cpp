// Looking up configuration values, and splitting text.
#include "utilities/text.h"

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;
using UTILITIES::findValue;
using UTILITIES::parseSizeVar;
using UTILITIES::readVar;
using UTILITIES::splitWords;
using UTILITIES::stringBegin;
using UTILITIES::tokenize;

namespace {

/// The text that the reader makes of a file with these lines.
std::string configText(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += "\n" + line + " ";
    }
    return text;
}

/// What readVar makes of a word variable that held "before".
std::string wordOf(const std::string& text, const std::string& key) {
    std::string value = "before";
    const bool found = readVar(text, key, value);
    return (found ? "true " : "false ") + value;
}

/// What readVar makes of an integer variable that held 42.
std::string integerOf(const std::string& value) {
    int variable = 42;
    const bool found = readVar(configText({"number " + value}), "number", variable);
    return (found ? "true " : "false ") + std::to_string(variable);
}

/// What parseSizeVar makes of a variable that held 42.
std::string sizeOf(const std::string& value) {
    int variable = 42;
    const bool found = parseSizeVar(configText({"size " + value, "next 7"}), "size", variable);
    return (found ? "true " : "false ") + std::to_string(variable);
}

TEST(TakeWord, TakesOneWordAfterTheOther) {
    std::string_view text = " \tone\ftwo \v three\r\n";
    EXPECT_EQ(UTILITIES::takeWord(text), "one");
    EXPECT_EQ(UTILITIES::takeWord(text), "two");
    EXPECT_EQ(UTILITIES::takeWord(text), "three");
    EXPECT_EQ(UTILITIES::takeWord(text), "");
    EXPECT_EQ(text, "");
    EXPECT_EQ(UTILITIES::takeWord(text), "");
}

} // namespace

TEST(ReadVar, TakesTheWordBehindAKeyThatBeginsALine) {
    EXPECT_EQ(wordOf(configText({"other x", "logfile /var/log/x"}), "logfile"), "true /var/log/x");
}

TEST(ReadVar, FindsTheKeyAtTheVeryStartOfATextWithoutLineFeed) {
    EXPECT_EQ(wordOf("detectorID 7 ", "detectorID"), "true 7");
}

TEST(ReadVar, DoesNotFindAKeyInTheMiddleOfALine) {
    EXPECT_EQ(wordOf(configText({"note logfile /x"}), "logfile"), "false before");
}

TEST(ReadVar, EndsTheWordAtTheFirstBlank) {
    EXPECT_EQ(wordOf(configText({"logfile /var/log/a b"}), "logfile"), "true /var/log/a");
}

TEST(ReadVar, EndsTheWordAtACarriageReturn) {
    EXPECT_EQ(wordOf(configText({"logfile /x\r"}), "logfile"), "true /x");
}

TEST(ReadVar, LetsTheFirstOfTwoOccurrencesWin) {
    EXPECT_EQ(wordOf(configText({"uid 1", "uid 2"}), "uid"), "true 1");
}

TEST(ReadVar, SkipsSeveralSpacesBehindTheKey) {
    EXPECT_EQ(wordOf(configText({"logfile    /x"}), "logfile"), "true /x");
}

TEST(ReadVar, DoesNotFindAKeyThatIsFollowedByATab) {
    EXPECT_EQ(wordOf(configText({"logfile\t/x"}), "logfile"), "false before");
}

TEST(ReadVar, DoesNotFindAKeyThatIsFollowedByAnEqualSign) {
    EXPECT_EQ(wordOf(configText({"logfile=/x"}), "logfile"), "false before");
}

TEST(ReadVar, DoesNotTakeALongerKeyForTheKey) {
    EXPECT_EQ(wordOf(configText({"logfile_max_size 5"}), "logfile"), "false before");
}

TEST(ReadVar, DistinguishesUpperAndLowerCase) {
    EXPECT_EQ(wordOf(configText({"LOGFILE /x"}), "logfile"), "false before");
}

TEST(ReadVar, LeavesTheVariableWhenTheKeyStandsAloneOnItsLine) {
    EXPECT_EQ(wordOf(configText({"logfile", "uid 5"}), "logfile"), "false before");
}

TEST(ReadVar, LeavesTheVariableWhenOnlySpacesFollowTheKey) {
    EXPECT_EQ(wordOf(configText({"logfile    ", "uid 5"}), "logfile"), "false before");
}

TEST(ReadVar, LeavesTheVariableWhenTheTextEndsBehindTheKey) {
    std::string value = "before";
    readVar("\nlogfile ", "logfile", value);
    EXPECT_EQ(value, "before");
}

TEST(ReadVar, TakesTheFirstWordOfTheNextLineWhenTheValueIsABlankAndATab) {
    EXPECT_EQ(wordOf(configText({"usrdir  \t", "uid 500"}), "usrdir"), "true uid");
}

TEST(ReadVar, LeavesTheVariableWhenTheTextEndsBehindABlankAndATab) {
    std::string value = "before";
    readVar(configText({"usrdir  \t"}), "usrdir", value);
    EXPECT_EQ(value, "before");
}

TEST(ReadVar, ReadsIntegersWithTheirSign) {
    EXPECT_EQ(integerOf("17"), "true 17");
    EXPECT_EQ(integerOf("+17"), "true 17");
    EXPECT_EQ(integerOf("-17"), "true -17");
    EXPECT_EQ(integerOf("2147483647"), "true " + std::to_string(INT_MAX));
}

TEST(ReadVar, EndsAnIntegerAtTheFirstOtherCharacter) {
    EXPECT_EQ(integerOf("5abc"), "true 5");
}

TEST(ReadVar, KeepsTheIntegerThatWasThereWhenTheValueIsNoNumber) {
    EXPECT_EQ(integerOf("abc"), "true 42");
}

TEST(ReadVar, KeepsTheIntegerThatWasThereWhenTheValueDoesNotFit) {
    EXPECT_EQ(integerOf("99999999999"), "true 42");
    EXPECT_EQ(integerOf("-99999999999"), "true 42");
}

TEST(ReadVar, LeavesTheIntegerWhenTheKeyIsAbsentOrWithoutValue) {
    int value = 42;
    EXPECT_FALSE(readVar(configText({"other 1"}), "number", value));
    EXPECT_FALSE(readVar(configText({"number", "other 1"}), "number", value));
    EXPECT_EQ(value, 42);
}

TEST(FindValue, IsTheFirstCharacterOfTheValue) {
    const std::string text = "\nkey   value ";
    EXPECT_EQ(findValue(text, "key"), text.find("value"));
}

TEST(FindValue, IsNothingForAnAbsentKeyAndForAKeyWithoutValue) {
    EXPECT_EQ(findValue("\nother x ", "key"), std::string::npos);
    EXPECT_EQ(findValue("\nkey \nother x ", "key"), std::string::npos);
    EXPECT_EQ(findValue("\nkey", "key"), std::string::npos);
    EXPECT_EQ(findValue("", "key"), std::string::npos);
}

TEST(FindValue, NeedsALineFeedInFrontOfTheKey) {
    EXPECT_EQ(findValue("key value ", "key"), std::string::npos);
}

TEST(ParseSizeVar, ReadsPlainBytes) {
    EXPECT_EQ(sizeOf("0"), "true 0");
    EXPECT_EQ(sizeOf("1000"), "true 1000");
    EXPECT_EQ(sizeOf("+5"), "true 5");
}

TEST(ParseSizeVar, MultipliesByTheUnit) {
    EXPECT_EQ(sizeOf("512K"), "true 524288");
    EXPECT_EQ(sizeOf("3M"), "true 3145728");
    EXPECT_EQ(sizeOf("1G"), "true 1073741824");
}

TEST(ParseSizeVar, AllowsSpacesBetweenSignDigitsAndUnit) {
    EXPECT_EQ(sizeOf("- 3 M"), "true -3145728");
    EXPECT_EQ(sizeOf("+   7   K"), "true 7168");
}

TEST(ParseSizeVar, LooksAtTheFirstLetterOfTheUnitOnly) {
    EXPECT_EQ(sizeOf("10MB"), "true 10485760");
    EXPECT_EQ(sizeOf("10KiB"), "true 10240");
}

TEST(ParseSizeVar, CountsOtherUnitsAsBytes) {
    EXPECT_EQ(sizeOf("10k"), "true 10");
    EXPECT_EQ(sizeOf("10m"), "true 10");
    EXPECT_EQ(sizeOf("10g"), "true 10");
    EXPECT_EQ(sizeOf("10B"), "true 10");
    EXPECT_EQ(sizeOf("10T"), "true 10");
}

TEST(ParseSizeVar, GivesZeroForAValueWithoutDigits) {
    EXPECT_EQ(sizeOf("M"), "true 0");
    EXPECT_EQ(sizeOf("much"), "true 0");
}

TEST(ParseSizeVar, WrapsAtThirtyTwoBits) {
    EXPECT_EQ(sizeOf("2G"), "true -2147483648");
    EXPECT_EQ(sizeOf("4G"), "true 0");
    EXPECT_EQ(sizeOf("3G"), "true -1073741824");
    EXPECT_EQ(sizeOf("-2G"), "true -2147483648");
    EXPECT_EQ(sizeOf("4294967297"), "true 1");
    EXPECT_EQ(sizeOf("2147483648"), "true -2147483648");
    EXPECT_EQ(sizeOf("-2147483648"), "true -2147483648");
}

TEST(ParseSizeVar, TakesTheLargestLongForDigitsWithoutEnd) {
    // Its low 32 bits are all set.
    EXPECT_EQ(sizeOf("9223372036854775808"), "true -1");
    EXPECT_EQ(sizeOf("99999999999999999999999999"), "true -1");
}

TEST(ParseSizeVar, LeavesTheVariableWhenTheKeyIsAbsent) {
    int value = 42;
    EXPECT_FALSE(parseSizeVar(configText({"other 1"}), "size", value));
    EXPECT_EQ(value, 42);
}

TEST(ParseSizeVar, LeavesTheVariableWhenTheLineEndsBehindTheKeyOrTheSign) {
    EXPECT_EQ(sizeOf(""), "false 42");
    EXPECT_EQ(sizeOf("    "), "false 42");
    EXPECT_EQ(sizeOf("-"), "false 42");
    EXPECT_EQ(sizeOf("+   "), "false 42");
}

TEST(ParseSizeVar, FindsOnlyAKeyBehindALineFeed) {
    int value = 42;
    EXPECT_FALSE(parseSizeVar("size 5 ", "size", value));
    EXPECT_TRUE(parseSizeVar("\nsize 5 ", "size", value));
    EXPECT_EQ(value, 5);
}

TEST(ParseSizeVar, ReadsAValueAtTheVeryEndOfTheText) {
    int value = 42;
    EXPECT_TRUE(parseSizeVar("\nsize 5", "size", value));
    EXPECT_EQ(value, 5);
    EXPECT_TRUE(parseSizeVar("\nsize 5K", "size", value));
    EXPECT_EQ(value, 5120);
}

TEST(StringBegin, IsTrueWhenTheFirstBytesAreThePrefix) {
    EXPECT_TRUE(stringBegin("DET_DATE: 5", "DET_DATE:"));
    EXPECT_TRUE(stringBegin("DET_DATE:", "DET_DATE:"));
}

TEST(StringBegin, IsFalseWhenThePrefixIsLongerThanTheText) {
    EXPECT_FALSE(stringBegin("DET", "DET_DATE:"));
    EXPECT_FALSE(stringBegin("", "D"));
}

TEST(StringBegin, IsFalseWhenAByteDiffers) {
    EXPECT_FALSE(stringBegin("DET-DATE: 5", "DET_DATE:"));
    EXPECT_FALSE(stringBegin(" DET", "DET"));
    EXPECT_FALSE(stringBegin("det", "DET"));
}

TEST(StringBegin, IsTrueForAnEmptyPrefix) {
    EXPECT_TRUE(stringBegin("text", ""));
    EXPECT_TRUE(stringBegin("", ""));
}

TEST(StringBegin, ComparesBytesBehindANulToo) {
    EXPECT_FALSE(stringBegin(std::string("a\0b", 3), std::string("a\0c", 3)));
    EXPECT_TRUE(stringBegin(std::string("a\0b", 3), std::string("a\0", 2)));
}

TEST(Tokenize, GivesWordsThatEndInANulAndThatTheCallerFrees) {
    const std::vector<char*> words = tokenize("one two", ' ');
    ASSERT_EQ(words.size(), 2U);
    EXPECT_STREQ(words[0], "one");
    EXPECT_STREQ(words[1], "two");
    EXPECT_EQ(std::strlen(words[0]), 3U);
    for (const char* word : words) {
        delete[] word;
    }
}

TEST(Tokenize, DropsEmptyWords) {
    EXPECT_THAT(splitWords("a::b:", ':'), ElementsAre("a", "b"));
    EXPECT_THAT(splitWords("  a  b ", ' '), ElementsAre("a", "b"));
    EXPECT_THAT(splitWords("", ' '), IsEmpty());
    EXPECT_THAT(splitWords("   ", ' '), IsEmpty());
    EXPECT_THAT(splitWords("a '' \"\" b", ' '), ElementsAre("a", "b"));
}

TEST(Tokenize, KeepsTheSeparatorBetweenSingleQuotes) {
    EXPECT_THAT(splitWords("'x y' z", ' '), ElementsAre("x y", "z"));
}

TEST(Tokenize, KeepsTheSeparatorBetweenDoubleQuotes) {
    EXPECT_THAT(splitWords("\"x y\" z", ' '), ElementsAre("x y", "z"));
}

TEST(Tokenize, TakesAQuoteInsideTheOtherKindAsACharacter) {
    EXPECT_THAT(splitWords("a\"b'c\"d", ' '), ElementsAre("ab'cd"));
    EXPECT_THAT(splitWords("a'b\"c'd", ' '), ElementsAre("ab\"cd"));
}

TEST(Tokenize, RemovesQuotesInTheMiddleOfAWord) {
    EXPECT_THAT(splitWords("--out-format='SENT: %n' -v", ' '),
                ElementsAre("--out-format=SENT: %n", "-v"));
    EXPECT_THAT(splitWords("1:'/a:b':/dst", ':'), ElementsAre("1", "/a:b", "/dst"));
}

TEST(Tokenize, LetsAnOpenQuoteRunToTheEnd) {
    EXPECT_THAT(splitWords("a 'b c", ' '), ElementsAre("a", "b c"));
    EXPECT_THAT(splitWords("a \"b c", ' '), ElementsAre("a", "b c"));
}

TEST(Tokenize, KnowsNoEscapeCharacter) {
    EXPECT_THAT(splitWords("a\\ b", ' '), ElementsAre("a\\", "b"));
    EXPECT_THAT(splitWords("a\\'b c'", ' '), ElementsAre("a\\b c"));
}

TEST(Tokenize, SplitsAtTheGivenSeparatorOnly) {
    EXPECT_THAT(splitWords("a b\tc", ':'), ElementsAre("a b\tc"));
}

TEST(SplitWords, GivesTheSameWordsAsStrings) {
    EXPECT_THAT(splitWords("-vH  --remove 'a b'", ' '), ElementsAre("-vH", "--remove", "a b"));
}
