// Which records a subscriber gets, and with which one it begins.
#include "relay/filter.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

namespace relay {

namespace {

constexpr std::int64_t second = 1000000000;

Record fileOf(const std::string& detector, const std::string& path) {
    Record record;
    record.detector = detector;
    record.path = path;
    return record;
}

TEST(Filter, TakesAllFilesUnlessTold) {
    const Filter filter;
    EXPECT_TRUE(filter.matches(fileOf("", "/x")));
    Record other;
    other.kind = Kind::usershift;
    EXPECT_FALSE(filter.matches(other));
}

TEST(Filter, AsksForAllThatIsGiven) {
    Filter filter;
    filter.detectors = {"1", "2"};
    filter.paths = {"*.cbf", "/data/[ab]/*"};
    EXPECT_TRUE(filter.matches(fileOf("2", "/x/y/z.cbf")));
    EXPECT_TRUE(filter.matches(fileOf("1", "/data/a/deep/down")));
    EXPECT_FALSE(filter.matches(fileOf("1", "/data/c/x")));
    EXPECT_FALSE(filter.matches(fileOf("3", "/x.cbf")));
}

TEST(Filter, ComesBackFromItsText) {
    Filter filter;
    filter.detectors = {"1", "with blank"};
    filter.paths = {"/a b/*", ""};
    filter.kinds = {Kind::other, Kind::file};
    EXPECT_TRUE(parseFilterText(filterText(filter)) == filter);
    EXPECT_TRUE(parseFilterText(filterText(Filter())) == Filter());
}

TEST(ParseTime, KnowsItsForms) {
    ::setenv("TZ", "UTC-2", 1);
    ::tzset();
    EXPECT_EQ(parseTime("1970-01-02T00:00:01Z"), 86401 * second);
    EXPECT_EQ(parseTime("1970-01-02T02:00:01"), 86401 * second);
    EXPECT_EQ(parseTime("1970-01-02 02:00"), 86400 * second);
    EXPECT_EQ(parseTime("1970-01-02"), (86400 - 7200) * second);
    for (const auto& [text, seconds] : {std::pair("90s", 90), std::pair("2m", 120),
                                        std::pair("1h", 3600), std::pair("3d", 259200)}) {
        const std::int64_t expected = now() - seconds * second;
        EXPECT_NEAR(static_cast<double>(parseTime(text).value_or(0)), static_cast<double>(expected),
                    2e9)
            << text;
    }
    ::unsetenv("TZ");
    ::tzset();
}

TEST(ParseTime, RefusesTheRest) {
    for (const char* const text :
         {"", "s", "-1s", "1w", "1970-01-02T00:00:01Zx", "1970-13-01", "6026-01-03",
          "99999999999999999999s", "9999999999d", "1.5h", " 1h"}) {
        EXPECT_FALSE(parseTime(text)) << text;
    }
}

TEST(ParseStart, KnowsItsForms) {
    EXPECT_EQ(parseStart("oldest")->where, Start::Where::oldest);
    EXPECT_EQ(parseStart("now")->where, Start::Where::now);
    EXPECT_EQ(parseStart("17")->where, Start::Where::sequence);
    EXPECT_EQ(parseStart("17")->value, 17);
    EXPECT_EQ(parseStart("1h")->where, Start::Where::time);
    for (const char* const text : {"", "soon", "-1", "1e3", "0x1", "99999999999999999999"}) {
        EXPECT_FALSE(parseStart(text)) << text;
    }
}

} // namespace

} // namespace relay
