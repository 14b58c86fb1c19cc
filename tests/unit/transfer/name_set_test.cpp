// A set of names in one text.
#include "tests/unit/support/allocations.h"
#include "transfer/name_set.h"

#include <random>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string nameOf(int number) {
    char name[64];
    std::snprintf(name, sizeof name, "run_%05d/frame_%010d.raw", number / 1000, number);
    return name;
}

/// What `names` should be, and is asked to be the same as.
std::vector<std::string_view> contentsOf(const std::set<std::string>& names) {
    return {names.begin(), names.end()};
}

} // namespace

TEST(NameSet, IsEmptyAtFirst) {
    NameSet names;
    names.erase("a");
    EXPECT_THAT(names.sorted(), IsEmpty());
}

TEST(NameSet, GivesNamesInTheOrderOfTheirBytesEachOnce) {
    NameSet names;
    for (const char* name : {"a", "B", "b", "a", "\xff", "10", "9", "ab"}) {
        names.insert(name);
    }
    EXPECT_THAT(names.sorted(), ElementsAre("10", "9", "B", "a", "ab", "b", "\xff"));
}

TEST(NameSet, TellsNamesFromTheirBeginnings) {
    NameSet names;
    names.insert("frame_1");
    names.erase("frame_");
    names.erase("frame_10");
    EXPECT_THAT(names.sorted(), ElementsAre("frame_1"));
}

TEST(NameSet, TakesANameInAgainThatWasTakenOut) {
    NameSet names;
    for (const char* name : {"x", "name"}) {
        names.insert(name);
        names.erase(name);
        names.erase(name);
        EXPECT_THAT(names.sorted(), IsEmpty());
        names.insert(name);
        names.insert(name);
        EXPECT_THAT(names.sorted(), ElementsAre(name));
        names.erase(name);
    }
    EXPECT_THAT(names.sorted(), IsEmpty());
}

TEST(NameSet, FindsEveryOneOfManyInWhateverOrderTheyAreTakenOut) {
    constexpr int count = 20000;
    for (const int step : {1, count - 1, 7919}) { // forwards, backwards, and criss-cross
        NameSet names;
        for (int i = 0; i < count; ++i) {
            names.insert(nameOf(i));
        }
        ASSERT_EQ(names.sorted().size(), static_cast<std::size_t>(count));
        for (int i = 0, number = 0; i < count - 1; ++i, number = (number + step) % count) {
            names.erase(nameOf(number));
        }
        EXPECT_EQ(names.sorted().size(), 1U) << "step " << step;
    }
}

TEST(NameSet, DoesWhatAnOrdinarySetDoes) {
    constexpr unsigned seed = 20261121;
    // NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp): foreseeable on purpose, a failure must repeat
    std::mt19937 random(seed);
    NameSet names;
    std::set<std::string> expected;
    for (int round = 0; round < 60; ++round) {
        // Rounds that mostly add and rounds that mostly take out, among few or many names.
        const auto chanceOfErasing = random() % 5;
        const unsigned range = round % 2 == 0 ? 300 : 30000;
        for (int i = 0; i < 2000; ++i) {
            const std::string name = "n" + std::to_string(random() % range);
            if (random() % 5 < chanceOfErasing) {
                names.erase(name);
                expected.erase(name);
            } else {
                names.insert(name);
                expected.insert(name);
            }
        }
        ASSERT_EQ(names.sorted(), contentsOf(expected)) << "round " << round;
    }
}

TEST(NameSet, TakesNoMemoryForNamesThatWereTakenOut) {
    constexpr std::size_t count = 100000;
    constexpr std::size_t open = 50;
    std::vector<std::string> all;
    for (std::size_t i = 0; i < count; ++i) {
        all.push_back(nameOf(static_cast<int>(i)));
    }
    NameSet names;
    const std::size_t before = bytesAllocated();
    for (std::size_t i = 0; i < count; ++i) {
        names.insert(all[i]);
        if (i >= open) {
            names.erase(all[i - open]);
        }
    }
    EXPECT_LT(bytesAllocated() - before, 100000U);
    EXPECT_EQ(names.sorted().size(), open);
}
