// How much room there is, also where nothing is yet.
#include "control/observe/free_space.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

TEST(SpaceAt, IsThatOfTheNearestFolderThereIs) {
    const std::optional<Space> root = spaceAt("/tmp");
    ASSERT_TRUE(root);
    EXPECT_GT(root->total, 0U);
    EXPECT_LE(root->free, root->total);
    for (const char* const path :
         {"/tmp/", "/tmp/./", "/tmp/not/yet/./there", "/tmp/not", "/tmp/not/"}) {
        const std::optional<Space> space = spaceAt(path);
        ASSERT_TRUE(space) << path;
        EXPECT_EQ(space->total, root->total) << path;
    }
    EXPECT_TRUE(spaceAt("/nowhere/at/all"));
}

TEST(SpaceAt, IsNotKnownWithoutAPath) {
    EXPECT_FALSE(spaceAt(""));
    EXPECT_FALSE(spaceAt("relative"));
    EXPECT_FALSE(spaceAt(std::string(10000, 'x')));
}

TEST(FreeSpace, AnswersForAllThatCanBeAsked) {
    FreeSpace space;
    for (int i = 0; i < 50; ++i) {
        const auto found = space.ask({"/tmp", "/tmp/there/is/nothing", std::string(10000, '/')});
        EXPECT_EQ(found.count("/tmp"), 1U);
        EXPECT_EQ(found.count("/tmp/there/is/nothing"), 1U);
    }
    EXPECT_TRUE(space.ask({}).empty());
}

TEST(FreeSpace, NeedsNoQuestion) {
    const FreeSpace space;
}

} // namespace

} // namespace control
