// What a journal says, and what is taken for none.
#include "shares/journal_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace confirming {
namespace {

using testing::ElementsAre;

JournalHead someHead() {
    return {{"7d4a-boot", 4711, 123456},
            987654321,
            {64, 12345, -5, "/tmp/file list\n1"},
            "rsync://root@10.0.0.1:49371/ramdisk/",
            "/images/./"};
}

TEST(JournalText, HeadIsReadAsItWasWritten) {
    const JournalHead head = someHead();
    const std::string text = headText(head) + "n a\n";
    std::string_view rest = text;
    const auto read = takeHead(rest);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->daemon, head.daemon);
    EXPECT_EQ(read->begun, head.begun);
    EXPECT_EQ(read->list.device, head.list.device);
    EXPECT_EQ(read->list.inode, head.list.inode);
    EXPECT_EQ(read->list.modified, head.list.modified);
    EXPECT_EQ(read->list.path, head.list.path);
    EXPECT_EQ(read->source, head.source);
    EXPECT_EQ(read->destination, head.destination);
    EXPECT_EQ(rest, "n a\n");
}

TEST(JournalText, HeadThatIsCutAnywhereIsNone) {
    const std::string whole = headText(someHead());
    for (std::size_t size = 0; size < whole.size(); ++size) {
        std::string_view text = std::string_view(whole).substr(0, size);
        EXPECT_FALSE(takeHead(text)) << size;
    }
}

TEST(JournalText, HeadWithAnythingElseIsNone) {
    const std::string whole = headText(someHead());
    for (const auto& [from, to] :
         std::vector<std::pair<std::string, std::string>>{{"skarn journal 2", "skarn journal 1"},
                                                          {"skarn journal 2", " skarn journal 2"},
                                                          {"4711", "47x"},
                                                          {" 4711", ""},
                                                          {"123456", "123456 "},
                                                          {"begun ", "begun"},
                                                          {"987654321", "99999999999999999999999"},
                                                          {"source ", "sauce "},
                                                          {"names\n", "name\n"},
                                                          {"-5", "x"},
                                                          {"/images/./", ""}}) {
        std::string changed = whole;
        changed.replace(changed.find(from), from.size(), to);
        std::string_view text = changed;
        EXPECT_FALSE(takeHead(text)) << from << " -> " << to;
    }
}

TEST(JournalText, BodyIsReadAsItWasWritten) {
    const std::string text = intendedLine("a b") + takenLine("e f") + intendedLine("d/c") +
                             confirmedLine("e f") + confirmedLine("d/c") + confirmedLine("x");
    const auto body = readBody(text);
    ASSERT_TRUE(body);
    EXPECT_THAT(body->intended, ElementsAre("a b", "d/c"));
    EXPECT_THAT(body->taken, ElementsAre("e f"));
    EXPECT_THAT(body->confirmed, ElementsAre("d/c", "e f", "x"));
    EXPECT_FALSE(body->done);
}

TEST(JournalText, EndIsToldByTheLastLine) {
    const std::string text = intendedLine("a") + confirmedLine("a");
    ASSERT_TRUE(readBody(text));
    EXPECT_FALSE(readBody(text)->done);
    ASSERT_TRUE(readBody(text + std::string(doneLine())));
    EXPECT_TRUE(readBody(text + std::string(doneLine()))->done);
    ASSERT_TRUE(readBody(doneLine()));
    EXPECT_TRUE(readBody(doneLine())->done);
    // Nothing comes after it, and no name is that mark.
    EXPECT_FALSE(readBody(std::string(doneLine()) + text));
    EXPECT_FALSE(readBody(std::string(doneLine()) + std::string(doneLine())));
    ASSERT_TRUE(readBody(intendedLine("done")));
    EXPECT_FALSE(readBody(intendedLine("done"))->done);
}

TEST(JournalText, LineThatWasBeingWrittenIsPassedOver) {
    const auto body = readBody("n a\nc a\nc run1/fra");
    ASSERT_TRUE(body);
    EXPECT_THAT(body->confirmed, ElementsAre("a"));
    ASSERT_TRUE(readBody("n a\ndone"));
    EXPECT_FALSE(readBody("n a\ndone")->done);
}

TEST(JournalText, BodyWithAnyOtherLineIsNone) {
    for (const char* line : {"", "n", "n ", "x a", "a", "nn a", "i 1 2 a", "t", "t ",
                             "done:", "done ", "n ../a", "c a/../../b", "t ..", "n /etc/passwd"}) {
        EXPECT_FALSE(readBody("n b\n" + std::string(line) + "\n")) << line;
    }
}

class LeftNamesText : public testing::Test {
protected:
    const LeftNames left{"rsync://root@10.0.0.1:49371/ramdisk/",
                         "/images\n/./",
                         {{"a b", true, 0}, {"d/c\\#012", false, 2}, {"there 1 x", false, 0}},
                         {"the journal run-1 is not used", "more"}};
    const std::string text = leftNamesText(left);
};

TEST_F(LeftNamesText, IsReadAsItWasWritten) {
    EXPECT_EQ(text, "skarn left names 1\n"
                    "source rsync://root@10.0.0.1:49371/ramdisk/\n"
                    "destination /images\\#012/./\n"
                    "names\n"
                    "gone a b\n"
                    "there 2 d/c\\#012\n"
                    "there 0 there 1 x\n"
                    "remark the journal run-1 is not used\n"
                    "remark more\n");
    const auto read = readLeftNames(text);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->source, left.source);
    EXPECT_EQ(read->destination, left.destination);
    EXPECT_EQ(read->remarks, left.remarks);
    ASSERT_EQ(read->names.size(), left.names.size());
    for (std::size_t at = 0; at < left.names.size(); ++at) {
        EXPECT_EQ(read->names[at].name, left.names[at].name);
        EXPECT_EQ(read->names[at].isGone, left.names[at].isGone);
        EXPECT_EQ(read->names[at].listings, left.names[at].listings);
    }
}

TEST_F(LeftNamesText, ThatIsCutInALineIsNone) {
    for (std::size_t size = 0; size < text.size(); ++size) {
        const bool isWhole = size > text.find("names\n", 20) && text[size - 1] == '\n';
        EXPECT_EQ(readLeftNames(std::string_view(text).substr(0, size)).has_value(), isWhole)
            << size;
    }
}

TEST_F(LeftNamesText, WithAnyOtherLineIsNone) {
    for (const char* line : {"", "gone", "gone ", "gone ../a", "gone /etc/passwd", "there a",
                             "there 1", "there 1 ", "there -1 a", "there x a", "there 1 a/../../b",
                             "n a", "c a", "done", "remarks a", "Gone a"}) {
        EXPECT_FALSE(readLeftNames(text + line + "\n")) << line;
    }
    EXPECT_FALSE(readLeftNames("skarn left names 2" + text.substr(text.find('\n'))));
}

} // namespace
} // namespace confirming
