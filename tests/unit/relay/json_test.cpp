// What is told in JSON.
#include "relay/json.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

namespace relay {

namespace {

TEST(IsUtf8, KnowsItsForms) {
    for (const char* const text :
         {"", "plain", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
          "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_TRUE(isUtf8(text)) << text;
    }
    for (const char* const text :
         {"\x80", "\xc0\x80", "\xc1\xbf", "\xc2", "\xc2x", "\xe0\x9f\xbf", "\xed\xa0\x80",
          "\xe0\xa0", "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80", "a\xff"}) {
        EXPECT_FALSE(isUtf8(text)) << text;
    }
}

TEST(JsonText, IsReadBackByOthers) {
    std::string text = "\xc3\xa4\"\\/";
    for (char each = 0; each < 0x7f; ++each) {
        text += each;
    }
    text += '\x7f';
    const std::string line = jsonText({{"text", text}});
    EXPECT_EQ(nlohmann::json::parse(line)["text"].get<std::string>(), text);
    EXPECT_EQ(line.find_first_of("\n\r\x1b\x7f"), std::string::npos);
}

TEST(PercentEncoded, LeavesPathsReadable) {
    EXPECT_EQ(percentEncoded("/data/./run_1/a-b~c\xff%? "), "/data/./run_1/a-b~c%FF%25%3F%20");
}

TEST(SecondsText, KeepsEveryDigit) {
    EXPECT_EQ(secondsText(0), "0.000000000");
    EXPECT_EQ(secondsText(1767225600000000001), "1767225600.000000001");
    EXPECT_EQ(secondsText(-1), "-1.999999999");
    EXPECT_EQ(secondsText(-1500000000), "-2.500000000");
}

TEST(AppendJson, GivesWhatIsKnown) {
    Record record;
    record.sequence = 7;
    record.path = "/d/./f";
    record.detector = "1";
    record.identity = Identity{5, 1500000000, 9};
    record.type = FileType::file;
    record.way = Way::linkFree;
    record.arrival = 2000000000;
    std::string text;
    appendJson(record, text);
    EXPECT_EQ(text, R"({"version":1,"seq":7,"kind":"file","path":"/d/./f","detector":"1",)"
                    R"("type":"file","size":5,"mtime":"1.500000000","inode":9,"link_free":true,)"
                    R"("arrival":"2.000000000","repeats":0})");
}

TEST(AppendJson, MakesUpNothing) {
    Record record;
    record.path = "/d/./\xff";
    std::string text;
    appendJson(record, text);
    const nlohmann::json object = nlohmann::json::parse(text);
    EXPECT_EQ(object["path_percent"], "/d/./%FF");
    EXPECT_TRUE(object["detector"].is_null());
    for (const char* const key : {"path", "size", "mtime", "inode", "link_free"}) {
        EXPECT_FALSE(object.contains(key)) << key;
    }
}

} // namespace

} // namespace relay
