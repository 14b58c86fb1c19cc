// What the page shows, as one JSON object.
#include "relay/view.h"
#include "tests/unit/relay/scratch.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

namespace relay {

namespace {

constexpr std::int64_t second = 1000000000;

Json shown(View& view) {
    return Json::parse(view.json(Status()));
}

TEST(View, HasARateForEachSecond) {
    View view("", nullptr);
    view.note(1 * second, 100, 1000);
    EXPECT_TRUE(shown(view)["files"].empty());
    view.note(2 * second, 150, 1000);
    view.note(2 * second + second / 10, 160, 2000); // sooner than a second
    view.note(4 * second, 170, 5000);
    EXPECT_EQ(shown(view)["files"], Json({50.0, 10.0}));
    EXPECT_EQ(shown(view)["bytes"], Json({0.0, 2000.0}));
}

TEST(View, KeepsFiveMinutesAndGoesOnAfterTheClockWasSetBack) {
    View view("", nullptr);
    for (std::int64_t n = 1; n <= 400; ++n) {
        view.note(n * second, n, n);
    }
    EXPECT_EQ(shown(view)["files"].size(), 300U);
    view.note(5 * second, 400, 400);
    view.note(6 * second, 407, 400);
    EXPECT_EQ(shown(view)["files"].back(), 7.0);
}

TEST(View, HasWhatAnotherProgramSawAndHowLongAgo) {
    const Scratch scratch;
    View without(scratch.path("figures"), nullptr);
    EXPECT_TRUE(shown(without)["look"].is_null());
    EXPECT_TRUE(shown(without)["runs"].is_null());
    View view(scratch.file("figures", "skarn_up 1\n"), nullptr);
    EXPECT_EQ(shown(view)["look"]["text"], "skarn_up 1\n");
    EXPECT_LT(shown(view)["look"]["age"], 60);
}

} // namespace

} // namespace relay
