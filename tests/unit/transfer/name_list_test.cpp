// Names in one text.
#include "transfer/name_list.h"

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::string> contentsOf(const NameList& list) {
    return {list.begin(), list.end()};
}

} // namespace

TEST(NameList, IsEmptyAtFirst) {
    const NameList list;
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.size(), 0U);
    EXPECT_THAT(contentsOf(list), IsEmpty());
}

TEST(NameList, KeepsNamesInTheirOrder) {
    NameList list;
    for (const char* name : {"b", "dir/a", "b"}) {
        list.add(name);
        EXPECT_EQ(list.last(), name);
    }
    EXPECT_FALSE(list.empty());
    EXPECT_EQ(list.size(), 3U);
    EXPECT_THAT(contentsOf(list), ElementsAre("b", "dir/a", "b"));
}

TEST(NameList, TakesOutTheLastName) {
    NameList list;
    list.add("first");
    list.add("second");
    list.removeLast();
    EXPECT_THAT(contentsOf(list), ElementsAre("first"));
    EXPECT_EQ(list.last(), "first");
    list.removeLast();
    EXPECT_TRUE(list.empty());
    EXPECT_THAT(contentsOf(list), IsEmpty());
    list.add("third");
    EXPECT_EQ(list.size(), 1U);
    EXPECT_THAT(contentsOf(list), ElementsAre("third"));
}

TEST(NameList, TakesOutOneNameAfterTheOther) {
    NameList list;
    for (const char* name : {"a", "", "ccc", "dd"}) {
        list.add(name);
    }
    for (const char* name : {"dd", "ccc", "", "a"}) {
        EXPECT_EQ(list.last(), name);
        list.removeLast();
    }
    EXPECT_TRUE(list.empty());
    list.add("e");
    EXPECT_EQ(list.last(), "e");
}

TEST(NameList, KeepsNamesOfAnyBytes) {
    const std::string zero("a\0b", 3);
    NameList list;
    list.add(zero);
    list.add("\xff\x01");
    EXPECT_THAT(contentsOf(list), ElementsAre(zero, "\xff\x01"));
}

TEST(NameList, CanBeHandedOver) {
    NameList list;
    list.add("a");
    const NameList other = std::exchange(list, {});
    EXPECT_THAT(contentsOf(list), IsEmpty());
    EXPECT_EQ(list.size(), 0U);
    EXPECT_THAT(contentsOf(other), ElementsAre("a"));
}
