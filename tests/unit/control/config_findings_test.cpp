// What is found in a configuration, mistake by mistake, and what is found to be none.
#include "config/config_text.h"
#include "control/check/findings.h"

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

using Words = std::vector<std::string>;

/// A detector's block of five lines without a mistake.
std::string block(const std::string& id = "1") {
    return "detectorID " + id + "\nremoteIP 127.0.0." + id + "\nsource /\ntarget /data/" + id +
           "\nminpause 500\n";
}

const std::string log = "logfile /var/log/skarn.log\n";

Findings find(const std::string& text, const Words& startOptions = {}) {
    const ConfigView view(text);
    const LoadedConfiguration loaded = makeConfiguration(view.text, startOptions);
    EXPECT_TRUE(loaded.configuration) << loaded.problem;
    const Configuration configuration = loaded.configuration.value_or(Configuration());
    Words folders;
    for (const Detector& detector : configuration.detectors) {
        folders.push_back(targetFolder(detector.target));
    }
    return findInConfiguration(view, configuration, startOptions, folders);
}

/// "LINE SEVERITY CODE" of each finding.
Words told(const std::string& text, const Words& startOptions = {}) {
    Words words;
    for (const Finding& finding : find(text, startOptions)) {
        EXPECT_FALSE(finding.text.empty());
        EXPECT_FALSE(finding.advice.empty());
        EXPECT_EQ(finding.text.find('\n'), std::string::npos) << finding.text;
        words.push_back(std::to_string(finding.line) +
                        (finding.severity == Severity::warning ? " warning " : " error ") +
                        finding.code);
    }
    return words;
}

/// The only finding about a text.
Finding only(const std::string& text) {
    Findings findings = find(text);
    EXPECT_EQ(findings.size(), 1U) << text;
    return findings.empty() ? Finding() : findings.front();
}

struct Case {
    const char* name;
    std::string text;
    Words expected;
};

std::ostream& operator<<(std::ostream& out, const Case& one) {
    return out << one.name;
}

class ConfigFindings : public testing::TestWithParam<Case> {};

TEST_P(ConfigFindings, TellEachMistakeInItsLine) {
    EXPECT_THAT(told(GetParam().text), ElementsAreArray(GetParam().expected));
}

std::string nameOf(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(
    GoodConfigurations, ConfigFindings,
    testing::Values(
        Case{"Smallest", log + block(), {}}, Case{"TwoDetectors", log + block() + block("2"), {}},
        Case{"NoLineFeedAtTheEnd",
             log + "detectorID 1\nremoteIP a\nsource /\nminpause 5\ntarget /x",
             {}},
        Case{"ManySpaces", "  logfile     /var/log/x   \n" + block(), {}},
        Case{"CommentsAndEmptyLines", "# a\n\n \t# detectorID 5\n" + log + "#\n" + block(), {}},
        Case{"ATabBeforeTheKey", "\tlogfile /var/log/x\n" + block(), {}},
        Case{"ATabAfterTheSpace", "logfile \t/var/log/x\n" + block(), {}},
        Case{"ATabAtTheEnd", "logfile /var/log/x\t\n" + block(), {}},
        Case{"GlobalKeysInABlock", block() + log + "uid 5\ngid 6\n", {}},
        Case{"AllKeys",
             log + "logfile_max_size 10M\nlogfile_max_number 5\nuid 1\ngid 2\nusrdir u$UID/$GID\n" +
                 block() + "interrun_pause 0\n",
             {}},
        Case{"InheritedPause",
             log + block() + "detectorID 2\nremoteIP b\nsource /\ntarget /x\n",
             {}},
        Case{"ALineOf1023Characters",
             log + std::string("#") + std::string(1022, 'x') + "\n" + block(),
             {}},
        Case{"HostNames",
             log + "detectorID a\nremoteIP det-1.example.org\nsource a/b_c\n"
                   "target /data/.hidden/x\nminpause 1\n",
             {}},
        Case{"AnIpv6Address",
             log + "detectorID a\nremoteIP [fe80::1]\nsource /\ntarget /x\nminpause 1\n",
             {}},
        Case{"LettersBeyondAscii",
             log + "detectorID \xc3\xa9\nremoteIP b\nsource /\ntarget /d\xc3\xa9\nminpause 1\n",
             {}},
        Case{"SizesWithUnits", "logfile_max_size 10MB\n" + log + block(), {}},
        Case{"SizesWithBinaryUnits", "logfile_max_size 512 KiB\n" + log + block(), {}},
        Case{"SizesInBytes", "logfile_max_size +100000B\n" + log + block(), {}},
        Case{"TheLargestSize", "logfile_max_size 2147483647\n" + log + block(), {}},
        Case{"ASignedNumber", "logfile_max_number +4\n" + log + block(), {}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Keys, ConfigFindings,
    testing::Values(
        Case{"FollowedByATab", "uid\t5\n" + log + block(), {"1 error not-taken"}},
        Case{"FollowedByEquals", "uid=5\n" + log + block(), {"1 error not-taken"}},
        Case{"FollowedByAColon", "uid: 5\n" + log + block(), {"1 error not-taken"}},
        Case{"FollowedByAHardBlank",
             "uid\xc2\xa0"
             "5\n" +
                 log + block(),
             {"1 error not-taken"}},
        Case{"LongestKeyFirst", "logfile_max_size=1M\n" + log + block(), {"1 error not-taken"}},
        Case{"EqualsAfterASpace", "uid = 5\n" + log + block(), {"1 error taken-otherwise"}},
        Case{"EqualsInTheValue", "uid =5\n" + log + block(), {"1 error taken-otherwise"}},
        Case{"WithoutAValue", log + "uid\n" + block(), {"2 error not-taken"}},
        Case{"WithoutAValueButSpaces", log + "uid    \n" + block(), {"2 error not-taken"}},
        Case{"WithoutAValueButATab", log + "uid\t\n" + block(), {"2 error not-taken"}},
        Case{"TakingTheNextLine", log + "uid \t\n" + block(), {"2 error taken-otherwise"}},
        Case{"TakingNothingAtTheEnd", log + block() + "gid \t", {"7 error not-taken"}},
        Case{"Unknown", log + "logfil /x\n" + block(), {"2 error not-taken"}},
        Case{"InOtherLetters", log + block() + "Target /y\n", {"7 error not-taken"}},
        Case{"UnlikeAnyOther", log + "password x\n" + block(), {"2 error not-taken"}},
        Case{"Repeated", log + "uid 5\n" + block() + "uid 6\n", {"8 error not-taken"}},
        Case{"RepeatedInABlock", log + block() + "source /b\n", {"7 error not-taken"}},
        Case{"HiddenByOneWithoutAValue",
             "uid\n" + log + "uid 5\n" + block(),
             {"1 error not-taken", "3 error not-taken"}},
        Case{"OfADetectorBeforeAll",
             "remoteIP x\nsource /\n" + log + block(),
             {"1 error not-taken", "2 error not-taken"}},
        Case{"BehindAByteOrderMark",
             "\xef\xbb\xbf" + log + block(),
             {"1 error not-taken", "0 warning no-log"}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Lines, ConfigFindings,
    testing::Values(
        Case{"OfTooManyCharacters",
             log + block() + std::string(1024, '#') + "\nuid 5\n" + block("2"),
             {"7 error line-too-long"}},
        Case{"OfTooManyCharactersAtTheEnd",
             log + block() + std::string(1024, '#'),
             {"7 error line-too-long"}},
        Case{"WithANulByte", log + std::string("uid 5\0 6\n", 9) + block(), {"2 error nul-byte"}},
        Case{"WithACarriageReturn", "logfile /x\r\n\r\n# c\r\n" + block(), {}},
        Case{"WithACarriageReturnForAValue", log + "uid\r\n" + block(), {"2 error not-taken"}},
        Case{"WithASpaceAndACarriageReturn",
             log + "uid \r\n" + block(),
             {"2 error taken-otherwise"}},
        Case{"WithFurtherWords", log + "uid 5 6\n" + block(), {"2 warning taken-otherwise"}},
        Case{"WithACommentBehind", log + "uid 5 # six\n" + block(), {"2 warning taken-otherwise"}},
        Case{"WithACommentBehindANumber",
             log + block() + "interrun_pause 5 # six\n",
             {"7 warning taken-otherwise"}},
        Case{"WithACommentBehindASize",
             log + "logfile_max_size 10M # six\n" + block(),
             {"2 warning taken-otherwise"}},
        Case{"WithABlankInAPath", "logfile /var/log/a b\n" + block(), {"1 error taken-otherwise"}},
        Case{"WithAQuotedPath",
             log + "usrdir \"/var/a b\"\nuid 1\ngid 2\n" + block(),
             {"2 error taken-otherwise"}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Detectors, ConfigFindings,
    testing::Values(
        Case{"None", log, {"0 error no-detector"}},
        Case{"NothingAtAll", "", {"0 error no-detector", "0 warning no-log"}},
        Case{"RepeatedId", log + block() + block("2") + block(), {"2 error repeated-detector"}},
        Case{"InsideALine",
             log + block() + "uid 5 # not detectorID 2\n",
             {"7 error block-inside-line", "7 error missing-key", "7 warning missing-key",
              "7 error missing-key"}},
        Case{"InsideAnotherWord",
             log + block() + "mydetectorID 1\n",
             {"2 error repeated-detector", "7 error block-inside-line", "7 error missing-key",
              "7 warning missing-key", "7 error missing-key"}},
        Case{"WithoutAnId",
             log + "detectorID\nremoteIP a\nsource /\ntarget /x\nminpause 1\n",
             {"2 error missing-key"}},
        Case{"WithoutAnything",
             log + "detectorID 1\nminpause 1\n",
             {"2 error missing-key", "2 warning missing-key", "2 error missing-key"}},
        Case{"WithEmptyValues",
             log + "detectorID 1\nremoteIP\nsource \ntarget\nminpause 1\n",
             {"3 error missing-key", "4 warning missing-key", "5 error missing-key"}},
        Case{"WithOneTarget",
             log + block() + "detectorID 2\nremoteIP b\nsource /\ntarget /data/1/.\n",
             {"10 error same-target"}},
        Case{"WithOneTargetInOtherWords",
             log + block() + "detectorID 2\nremoteIP b\nsource /\ntarget /data//x/../1/\n",
             {"10 error same-target"}},
        Case{"WithNestedTargets",
             log + block() + "detectorID 2\nremoteIP b\nsource /\ntarget /data/1/sub\n",
             {"10 warning nested-target"}},
        Case{"BesideEachOther",
             log + block() + "detectorID 2\nremoteIP b\nsource /\ntarget /data/11\n",
             {}},
        Case{"WithTheRootAsTarget",
             log + "detectorID 1\nremoteIP b\nsource /\ntarget /\nminpause 1\n",
             {"5 error bad-value"}},
        Case{"WithARelativeTarget",
             log + "detectorID 1\nremoteIP b\nsource /\ntarget data\nminpause 1\n",
             {"5 error bad-value"}},
        Case{"WithABadAddress",
             log + "detectorID 1\nremoteIP 10.0.0.256\nsource /\ntarget /d\nminpause 1\n",
             {"3 error bad-value"}},
        Case{"WithAPort",
             log + "detectorID 1\nremoteIP 10.0.0.2:873\nsource /\ntarget /d\nminpause 1\n",
             {"3 error bad-value"}},
        Case{"WithAUrl",
             log + "detectorID 1\nremoteIP rsync://d\nsource /\ntarget /d\nminpause 1\n",
             {"3 error bad-value"}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Pauses, ConfigFindings,
    testing::Values(
        Case{"NoneGiven",
             log + "detectorID 1\nremoteIP b\nsource /\ntarget /d\n",
             {"2 warning busy-cycle"}},
        Case{"Zero",
             log + "detectorID 1\nremoteIP b\nsource /\ntarget /d\nminpause 0\n",
             {"6 warning busy-cycle"}},
        Case{"ZeroInherited",
             log + "detectorID 1\nremoteIP b\nsource /\ntarget /d\nminpause 0\n"
                   "detectorID 2\nremoteIP c\nsource /\ntarget /e\n",
             {"6 warning busy-cycle", "7 warning busy-cycle"}},
        Case{"Negative",
             log + "detectorID 1\nremoteIP b\nsource /\ntarget /d\nminpause -5\n",
             {"6 error bad-value"}},
        Case{"NegativeBetweenProcesses",
             log + block() + "interrun_pause -1\n",
             {"7 error bad-value"}},
        Case{"NoNumber", log + block() + "interrun_pause soon\n", {"7 error not-taken"}},
        Case{"TooLarge", log + block() + "interrun_pause 2147483648\n", {"7 error not-taken"}},
        Case{"InSeconds", log + block() + "interrun_pause 1s\n", {"7 error taken-otherwise"}},
        Case{"InMilliseconds",
             log + block() + "interrun_pause 1ms\n",
             {"7 warning taken-otherwise"}},
        Case{"WithAFraction", log + block() + "interrun_pause 0.5\n", {"7 error taken-otherwise"}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Logs, ConfigFindings,
    testing::Values(
        Case{"None", block(), {"0 warning no-log"}},
        Case{"Null", "logfile /dev/null\n" + block(), {"1 warning no-log"}},
        Case{"Relative", "logfile skarn.log\n" + block(), {"1 error bad-value"}},
        Case{"InQuotes", "logfile \"/var/log/x\"\n" + block(), {"1 error taken-otherwise"}},
        Case{"NumberIsNone", "logfile_max_number x\n" + log + block(), {"1 error not-taken"}},
        Case{"NumberIsASign", "logfile_max_number -\n" + log + block(), {"1 error not-taken"}},
        Case{"NumberNegative", "logfile_max_number -2\n" + log + block(), {"1 warning bad-value"}},
        Case{"NumberHuge", "logfile_max_number 1000000\n" + log + block(), {"1 warning bad-value"}},
        Case{"NumberTooLarge",
             "logfile_max_number 99999999999\n" + log + block(),
             {"1 error not-taken"}},
        Case{"NumberHexadecimal",
             "logfile_max_number 0x10\n" + log + block(),
             {"1 error taken-otherwise"}},
        Case{
            "SizeLowerCase", "logfile_max_size 10k\n" + log + block(), {"1 error taken-otherwise"}},
        Case{"SizeLowerCaseApart",
             "logfile_max_size 10 mb\n" + log + block(),
             {"1 error taken-otherwise"}},
        Case{"SizeInTera", "logfile_max_size 1T\n" + log + block(), {"1 error taken-otherwise"}},
        Case{"SizeWithAFraction",
             "logfile_max_size 1.5M\n" + log + block(),
             {"1 error taken-otherwise"}},
        Case{"SizeWithATab",
             "logfile_max_size 10\tM\n" + log + block(),
             {"1 error taken-otherwise"}},
        Case{"SizeBehindATab",
             "logfile_max_size \t10M\n" + log + block(),
             {"1 error taken-otherwise"}},
        Case{"SizeIsNone", "logfile_max_size big\n" + log + block(), {"1 error taken-otherwise"}},
        Case{"SizeIsAUnit", "logfile_max_size M\n" + log + block(), {"1 error taken-otherwise"}},
        Case{"SizeIsATab", "logfile_max_size \t\n" + log + block(), {"1 error taken-otherwise"}},
        Case{"SizeWithoutValue", "logfile_max_size\n" + log + block(), {"1 error not-taken"}},
        Case{"SizeWraps", "logfile_max_size 2G\n" + log + block(), {"1 error taken-otherwise"}},
        Case{"SizeWrapsInBytes",
             "logfile_max_size 2147483648\n" + log + block(),
             {"1 error taken-otherwise"}},
        Case{"SizeWrapsFarBeyond",
             "logfile_max_size 99999999999999999999999G\n" + log + block(),
             {"1 error taken-otherwise"}},
        Case{"SizeZero", "logfile_max_size 0\n" + log + block(), {"1 warning bad-value"}},
        Case{"SizeNegative", "logfile_max_size - 3 M\n" + log + block(), {"1 warning bad-value"}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Owners, ConfigFindings,
    testing::Values(
        Case{"OnlyADirectory", log + "usrdir u\n" + block(), {"2 warning usrdir-without-owner"}},
        Case{"OnlyAUser", log + "usrdir u\nuid 5\n" + block(), {"2 warning usrdir-without-owner"}},
        Case{"TheSameVariableTwice",
             log + "uid 1\ngid 2\nusrdir $UID/$GID/$UID\n" + block(),
             {"4 error bad-value"}},
        Case{"AnotherVariable",
             log + "uid 1\ngid 2\nusrdir $HOME\n" + block(),
             {"4 error bad-value"}}),
    nameOf);

TEST(ConfigFindings, TellWhatAShellWouldMeetInEachValueThatReachesOne) {
    for (const char* const value : {"a;b", "$(b)", "`b`", "a&b", "a|b", "a>b", "a*b", "a'b", "~a",
                                    "-a", "a\\b", "a{b,c}", "a\"b"}) {
        EXPECT_THAT(told(log + "uid " + value + "\n" + block()), ElementsAre("2 error bad-value"))
            << value;
        EXPECT_THAT(told(log + "gid " + value + "\n" + block()), ElementsAre("2 error bad-value"))
            << value;
        EXPECT_THAT(
            told(log + "detectorID 1\nremoteIP b\nsource /\nminpause 1\ntarget /x" + value + ";\n"),
            ElementsAre("6 error bad-value"))
            << value;
        EXPECT_THAT(
            told(log + "detectorID 1\nremoteIP b\nminpause 1\ntarget /x\nsource /" + value + ";\n"),
            ElementsAre("6 error bad-value"))
            << value;
        EXPECT_THAT(
            told(log + "detectorID 1\nsource /\nminpause 1\ntarget /x\nremoteIP " + value + ";\n"),
            ElementsAre("6 error bad-value"))
            << value;
    }
    // Neither the log nor an ID goes to a shell.
    EXPECT_THAT(told("logfile /var/log/a;b\ndetectorID 1;2\nremoteIP b\nsource /\n"
                     "target /x\nminpause 1\n"),
                IsEmpty());
}

TEST(ConfigFindings, TellWhatIsLostBehindALineThatIsTooLong) {
    const Finding finding =
        only(log + block() + std::string(1500, 'x') + "\nuid 5\n" + block("2") + block("3"));
    EXPECT_THAT(finding.text, HasSubstr("1500 characters"));
    EXPECT_THAT(finding.text, HasSubstr("11 lines below are ignored"));
}

TEST(ConfigFindings, NameTheNearestKey) {
    EXPECT_THAT(only(log + block() + "Minpause 5\n").advice, HasSubstr("\"minpause VALUE\""));
    EXPECT_THAT(only(log + "port 5\n" + block()).advice, HasSubstr("logfile_max_size"));
}

TEST(ConfigFindings, SayWhereAnInheritedPauseOfZeroStands) {
    const Findings findings =
        find(log + "detectorID 1\nremoteIP b\nsource /\ntarget /d\nminpause 0\n"
                   "detectorID 2\nremoteIP c\nsource /\ntarget /e\n");
    ASSERT_EQ(findings.size(), 2U);
    EXPECT_THAT(findings[1].text, HasSubstr("that of detector \"1\", line 6"));
    EXPECT_EQ(findings[1].subject, "2");
}

TEST(ConfigFindings, SayWhatTheDaemonTakesForASize) {
    EXPECT_THAT(only("logfile_max_size 10k\n" + log + block()).text, HasSubstr("takes \"10\""));
    EXPECT_THAT(only("logfile_max_size 2G\n" + log + block()).text,
                AllOf(HasSubstr("takes \"-2147483648\""), HasSubstr("never rotated")));
    EXPECT_THAT(only("logfile_max_size 4G\n" + log + block()).text,
                AllOf(HasSubstr("takes \"0\""), HasSubstr("in each cycle")));
}

TEST(ConfigFindings, SayWhatCountsInstead) {
    EXPECT_EQ(only(log + block() + "interrun_pause=500\n").text,
              "\"interrun_pause=500\": the daemon takes nothing of it; \"0\" counts");
    EXPECT_EQ(only(log + block() + "minpause: 5\n").text,
              "\"minpause: 5\": the daemon takes nothing of it; \"500\" counts");
    EXPECT_EQ(only(log + "logfile_max_number x\n" + block()).text,
              "\"logfile_max_number x\": the daemon takes nothing of it; \"10\" counts");
    EXPECT_EQ(only(log + "gid\n" + block()).text,
              "\"gid\": the daemon takes nothing of it; nothing counts");
}

TEST(ConfigFindings, TellOfSharesThatTwoDetectorsHave) {
    const std::string second = "detectorID 2\nremoteIP 127.0.0.1\nsource ";
    EXPECT_THAT(told(log + block() + second + "/\ntarget /x\n"), ElementsAre("9 error same-share"));
    EXPECT_THAT(told(log + block() + second + "/b\ntarget /x\n"), IsEmpty());
}

TEST(ConfigFindings, TellOfSourcesThatLeadUpwards) {
    const std::string begin = log + "detectorID 1\nremoteIP b\ntarget /x\nminpause 1\nsource ";
    for (const char* const source : {"..", "/../a", "a/../b"}) {
        EXPECT_THAT(told(begin + source), ElementsAre("6 error bad-value"));
    }
    EXPECT_THAT(told(begin + "/..a/b.."), IsEmpty());
}

TEST(ConfigFindings, SayWhichWordOfTheNextLineIsTaken) {
    EXPECT_THAT(only(log + "uid \t\n# no\n" + block()).text, HasSubstr("\"detectorID\""));
}

TEST(ConfigFindings, FollowStartOptions) {
    EXPECT_THAT(told(log + block(), {"-d", "1:/a:/b"}), IsEmpty());
    EXPECT_THAT(told(log + "usrdir x\n" + block(), {"-u", "1:2"}), IsEmpty());
    EXPECT_THAT(told(log + block(), {"-d", "1:/a:b"}), ElementsAre("0 error bad-value"));
    EXPECT_THAT(told(log + block(), {"-d", "1:/a:/b;c"}), ElementsAre("0 error bad-value"));
    EXPECT_THAT(told(log + block(), {"-u", "$(x):1"}), ElementsAre("0 error bad-value"));
    EXPECT_THAT(told(log + block() + block("2"), {"-d", "2:/:/data/1"}),
                ElementsAre("0 error same-target"));
    EXPECT_THAT(told(log + block(), {"-d", "1:/:/"}), ElementsAre("0 error bad-value"));
    // What an option replaces is not missed in the file.
    EXPECT_THAT(told(log + "detectorID 1\nremoteIP a\nminpause 1\n", {"-d", "1:/a:/b"}), IsEmpty());
}

TEST(ConfigFindings, AreInTheOrderOfTheLines) {
    const Findings findings = find("gid\n" + block() + "junk\n" + block("2") + "uid=\n");
    EXPECT_TRUE(std::is_sorted(
        findings.begin(), findings.end() - 1,
        [](const Finding& one, const Finding& other) { return one.line < other.line; }));
    EXPECT_EQ(findings.back().line, 0);
}

TEST(ConfigFindings, EndSomewhere) {
    std::string text;
    for (int i = 0; i < 20000; ++i) {
        text += "junk " + std::to_string(i) + "\n";
    }
    const Findings findings = find(text);
    EXPECT_LT(findings.size(), 100U);
    EXPECT_THAT(told(text), Contains("0 error and-more"));
}

TEST(ConfigFindings, TakeNoTimeForManyDetectorsOrKeys) {
    // Anything that looks through the whole text once for each line would take hours.
    std::string detectors;
    for (int i = 0; i < 20000; ++i) {
        detectors += "detectorID " + std::to_string(i) + "\n";
    }
    EXPECT_THAT(told(detectors), Contains("0 error and-more"));
    std::string keys = block();
    for (int i = 0; i < 30000; ++i) {
        keys += i % 2 == 0 ? "uid 1\n" : "source /\n";
    }
    EXPECT_THAT(told(keys), Contains("0 error and-more"));
}

TEST(NearestKey, ForgivesALetterOrTwo) {
    EXPECT_EQ(nearestKey("logfiles"), "logfile");
    EXPECT_EQ(nearestKey("min_pause"), "minpause");
    EXPECT_EQ(nearestKey("remote_ip"), "remoteIP");
    EXPECT_EQ(nearestKey("REMOTEIP"), "remoteIP");
    EXPECT_EQ(nearestKey("detector"), "detectorID");
    EXPECT_EQ(nearestKey("detectorid"), "detectorID");
    EXPECT_EQ(nearestKey("interrunpause"), "interrun_pause");
    EXPECT_EQ(nearestKey("logfile_maxsize"), "logfile_max_size");
    EXPECT_EQ(nearestKey("log"), "logfile");
    EXPECT_EQ(nearestKey("sorce"), "source");
    EXPECT_EQ(nearestKey("userdir"), "usrdir");
}

TEST(NearestKey, GivesNoneForAnotherWord) {
    for (const char* const word : {"password", "port", "x", "", "numberOfProcesses", "-----"}) {
        EXPECT_EQ(nearestKey(word), "") << word;
    }
    EXPECT_EQ(nearestKey(std::string(5000, 'a')), "");
}

TEST(ConfigView, ReadsWhatTheDaemonReads) {
    for (const std::string& text :
         {std::string(), std::string("\n"), log + block(), log + "\r\n \t\n# c\n" + block() + "x",
          log + std::string(1023, 'a') + "\n" + block(),
          log + std::string(1024, 'a') + "\n" + block(), std::string(1023, ' ') + "\nuid 1",
          std::string("uid\0 5\n\0\nx", 10)}) {
        std::istringstream stream(text);
        EXPECT_EQ(ConfigView(text).text, readConfigText(stream)) << text;
    }
}

TEST(ConfigView, KnowsWhereEverythingStands) {
    const ConfigView view("# c\n" + log + "\n" + block("a") + "uid 5 detectorID b\nminpause 7\n");
    ASSERT_EQ(view.blocks.size(), 2U);
    EXPECT_EQ(view.blocks[0].line, 4);
    EXPECT_EQ(view.blocks[1].line, 9);
    EXPECT_EQ(view.blocks[1].id, "b");
    EXPECT_EQ(view.settings.lookUp("logfile")->line, 2);
    EXPECT_EQ(view.settings.lookUp("uid")->line, 9);
    EXPECT_EQ(view.settings.lookUp("gid"), nullptr);
    EXPECT_EQ(view.blocks[0].uses.lookUp("target")->line, 7);
    EXPECT_EQ(view.blocks[1].uses.lookUp("target"), nullptr);
    EXPECT_EQ(view.blocks[1].pauses.at("minpause").milliseconds, 7);
    EXPECT_EQ(view.blocks[1].pauses.at("minpause").line, 10);
    EXPECT_EQ(view.blocks[0].pauses.at("interrun_pause").line, 0);
}

/// Text in which every piece may meet every other.
std::string randomText(std::mt19937& random) {
    static const Words pieces = {"detectorID ", "detectorID\t",
                                 "minpause ",   "interrun_pause ",
                                 "target ",     "source ",
                                 "remoteIP ",   "uid ",
                                 "gid\n",       "usrdir ",
                                 "logfile ",    "logfile_max_size ",
                                 "\n",          "\n",
                                 "\n",          " ",
                                 "\t",          "\r\n",
                                 "1",           "-7",
                                 "99999999999", "10M",
                                 "/a/b",        "/.",
                                 "a;b",         "#",
                                 "=",           "\"",
                                 "x",           "2"};
    std::string text;
    std::uniform_int_distribution<std::size_t> pick(0, pieces.size() - 1);
    for (int i = 0; i < 40; ++i) {
        text += pieces[pick(random)];
    }
    if (pick(random) == 0) {
        text += std::string(1024, ' ') + "\nuid 9\n";
    }
    return text + std::string(pick(random) == 1 ? 1 : 0, '\0');
}

TEST(ConfigView, AgreesWithTheConfigurationWhateverTheText) {
    // NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp): foreseeable on purpose, a failure must repeat
    std::mt19937 random(20261121);
    for (int i = 0; i < 1500; ++i) {
        const std::string text = randomText(random);
        const ConfigView view(text);
        std::istringstream stream(text);
        ASSERT_EQ(view.text, readConfigText(stream)) << text;
        const LoadedConfiguration loaded = makeConfiguration(view.text, {});
        ASSERT_TRUE(loaded.configuration);
        std::size_t served = 0;
        for (const ConfigBlock& one : view.blocks) {
            if (!one.served) {
                continue;
            }
            ++served;
            const auto detector = std::find_if(
                loaded.configuration->detectors.begin(), loaded.configuration->detectors.end(),
                [&one](const Detector& each) { return each.id == one.id; });
            ASSERT_NE(detector, loaded.configuration->detectors.end()) << text;
            ASSERT_EQ(detector->minPause, one.pauses.at("minpause").milliseconds) << text;
            ASSERT_EQ(detector->interrunPause, one.pauses.at("interrun_pause").milliseconds)
                << text;
        }
        ASSERT_EQ(served, loaded.configuration->detectors.size()) << text;
        const Findings findings = find(text);
        const auto lines = std::count(text.begin(), text.end(), '\n') + 1;
        for (const Finding& finding : findings) {
            ASSERT_GE(finding.line, 0) << text;
            ASSERT_LE(finding.line, lines) << text;
        }
    }
}

} // namespace

} // namespace control
