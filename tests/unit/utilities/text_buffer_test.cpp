// Collecting text from pieces.
#include "tests/unit/support/allocations.h"
#include "utilities/text_buffer.h"

#include <string>

#include <gtest/gtest.h>

TEST(TextBuffer, IsEmptyAtFirst) {
    TextBuffer buffer;
    EXPECT_TRUE(buffer.empty());
    EXPECT_EQ(buffer.view(), "");
    buffer.clear(0);
    EXPECT_EQ(buffer.view(), "");
}

TEST(TextBuffer, KeepsPiecesOfAnyBytesInTheirOrder) {
    TextBuffer buffer;
    buffer.append("");
    EXPECT_TRUE(buffer.empty());
    buffer.append("a");
    buffer.append({"\0b", 2});
    buffer.append({});
    buffer.append("\xff");
    EXPECT_FALSE(buffer.empty());
    EXPECT_EQ(buffer.view(), std::string("a\0b\xff", 4));
}

TEST(TextBuffer, GrowsByPiecesOfAnySize) {
    TextBuffer buffer;
    std::string expected;
    for (std::size_t size = 0; size < 3000; size += 7) {
        const std::string piece(size, static_cast<char>('a' + size % 26));
        buffer.append(piece);
        expected += piece;
    }
    buffer.append(expected);
    EXPECT_EQ(buffer.view(), expected + expected);
}

TEST(TextBuffer, KeepsItsMemoryForTheNextTextUnlessThatIsMuch) {
    TextBuffer buffer;
    const std::string text(5000, 'x');
    buffer.append(text);
    buffer.clear(10000);
    EXPECT_TRUE(buffer.empty());
    std::size_t before = bytesAllocated();
    buffer.append(text);
    EXPECT_EQ(bytesAllocated(), before);
    EXPECT_EQ(buffer.view(), text);

    buffer.clear(4999);
    EXPECT_TRUE(buffer.empty());
    before = bytesAllocated();
    buffer.append("y");
    EXPECT_GT(bytesAllocated(), before);
    EXPECT_LT(bytesAllocated() - before, 1000U);
    EXPECT_EQ(buffer.view(), "y");
}
