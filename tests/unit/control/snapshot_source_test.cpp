// What a look asks of things that may not answer: how much room there is, also where nothing is
// yet.
#include "control/observe/snapshot_source.h"

#include <chrono>
#include <future>
#include <memory>
#include <thread>

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

TEST(Aside, LeavesAQuestionThatIsNotAnsweredToItself) {
    using std::chrono::milliseconds;
    const auto gate = std::make_shared<std::promise<void>>();
    std::shared_future<void> opened(gate->get_future());
    Aside<int> aside;
    const auto question = [opened] {
        opened.wait();
        return 7;
    };
    EXPECT_EQ(aside.ask(question, milliseconds(10)), std::nullopt);
    EXPECT_EQ(aside.ask([] { return 8; }, milliseconds(10)), std::nullopt) << "one at a time";
    gate->set_value();
    std::optional<int> late;
    for (int i = 0; i < 1000 && !late; ++i) {
        std::this_thread::sleep_for(milliseconds(10));
        late = aside.ask([] { return 8; }, milliseconds(10));
    }
    EXPECT_EQ(late, 7) << "the answer to the earlier one";
    EXPECT_EQ(aside.ask([] { return 9; }, milliseconds(10000)), 9);
}

} // namespace

} // namespace control
