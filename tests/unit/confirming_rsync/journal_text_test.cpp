// What a journal says, and what is taken for none.
#include "confirming_rsync/journal_text.h"

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
         std::vector<std::pair<std::string, std::string>>{{"skarn journal 1", "skarn journal 2"},
                                                          {"skarn journal 1", " skarn journal 1"},
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
    const std::string text = intendedLine("a b") + intendedLine("d/c") +
                             inheritedLine({"e f", 77, 2}) + confirmedLine("d/c") +
                             confirmedLine("x");
    const auto body = readBody(text);
    ASSERT_TRUE(body);
    EXPECT_THAT(body->intended, ElementsAre("a b", "d/c"));
    ASSERT_EQ(body->inherited.size(), 1U);
    EXPECT_EQ(body->inherited[0].name, "e f");
    EXPECT_EQ(body->inherited[0].since, 77U);
    EXPECT_EQ(body->inherited[0].rounds, 2U);
    EXPECT_THAT(body->confirmed, ElementsAre("d/c", "x"));
    EXPECT_FALSE(body->ownDone);
}

TEST(JournalText, EndIsToldByTheLastLine) {
    const std::string begin = headText(someHead()) + intendedLine("a");
    EXPECT_FALSE(isAllDone(begin));
    EXPECT_FALSE(isAllDone(begin + std::string(ownDoneLine())));
    EXPECT_TRUE(isAllDone(begin + std::string(allDoneLine())));
    EXPECT_TRUE(isAllDone(headText(someHead()) + std::string(allDoneLine())));
    // A name is no mark.
    EXPECT_FALSE(isAllDone(begin + intendedLine(std::string(allDoneLine()).substr(0, 15))));
    EXPECT_FALSE(isAllDone(allDoneLine()));
    for (const std::string_view line : {ownDoneLine(), allDoneLine()}) {
        const auto body = readBody("n a\n" + std::string(line));
        ASSERT_TRUE(body);
        EXPECT_TRUE(body->ownDone);
    }
}

TEST(JournalText, LineThatWasBeingWrittenIsPassedOver) {
    const auto body = readBody("n a\nc a\nc run1/fra");
    ASSERT_TRUE(body);
    EXPECT_THAT(body->confirmed, ElementsAre("a"));
}

TEST(JournalText, BodyWithAnyOtherLineIsNone) {
    for (const char* line :
         {"", "n", "n ", "x a", "a", "nn a", "i a", "i 1 a", "i 1 2 ", "i x 2 a", "i 1 -2 a",
          "done:", "done: own names ", "n ../a", "c a/../../b", "i 1 2 ..", "n /etc/passwd"}) {
        EXPECT_FALSE(readBody("n b\n" + std::string(line) + "\n")) << line;
    }
}

} // namespace
} // namespace confirming
