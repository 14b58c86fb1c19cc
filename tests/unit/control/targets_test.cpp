// Which targets get in each other's way.
#include "control/check/targets.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(TargetFolder, LeavesOutWhatChangesNothing) {
    EXPECT_EQ(targetFolder("/data/."), "/data");
    EXPECT_EQ(targetFolder("/data/./u1"), "/data/u1");
    EXPECT_EQ(targetFolder("/data//x/../y/"), "/data/y");
    EXPECT_EQ(targetFolder("/data/.hidden/."), "/data/.hidden");
    EXPECT_EQ(targetFolder("/."), "/");
    EXPECT_EQ(targetFolder("/"), "/");
    EXPECT_EQ(targetFolder("///x//"), "/x");
    EXPECT_EQ(targetFolder(""), "/");
}

TEST(TargetFolder, StartsAtTheRoot) {
    EXPECT_EQ(targetFolder("data/."), "/data");
    EXPECT_EQ(targetFolder("../data"), "/data");
}

TEST(OverlappingTargets, FindsTheSame) {
    EXPECT_THAT(overlappingTargets({"/a", "/b", "/a", "/a"}),
                ElementsAre(TargetOverlap{0, 2, true}, TargetOverlap{0, 3, true}));
    EXPECT_THAT(overlappingTargets({"/", "/"}), ElementsAre(TargetOverlap{0, 1, true}));
}

TEST(OverlappingTargets, FindsTheNearestAroundEachFolder) {
    EXPECT_THAT(overlappingTargets({"/a/b/c/d", "/a", "/a/b"}),
                ElementsAre(TargetOverlap{2, 0, false}, TargetOverlap{1, 2, false}));
}

TEST(OverlappingTargets, TakesNoNameForAFolderOfItsBeginning) {
    EXPECT_THAT(overlappingTargets({"/data/1", "/data/11", "/data1", "/dat"}), IsEmpty());
}

TEST(OverlappingTargets, LeavesTheRootAside) {
    EXPECT_THAT(overlappingTargets({"/", "/a"}), IsEmpty());
    EXPECT_THAT(overlappingTargets({}), IsEmpty());
}

} // namespace

} // namespace control
