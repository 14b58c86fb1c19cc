// Whose target a path lies below.
#include "relay/targets.h"
#include "tests/unit/relay/scratch.h"

#include <gtest/gtest.h>

namespace relay {

namespace {

class TargetsTest : public testing::Test {
protected:
    Scratch scratch;
    const Targets targets{scratch.file("conf", "detectorID 1\nremoteIP 127.0.0.1\nsource /\n"
                                               "target /data\n"
                                               "detectorID 2\nremoteIP 127.0.0.2\nsource /\n"
                                               "target /data/two\n")};
};

TEST_F(TargetsTest, FindsTheDetectorAndTheHalves) {
    const Located one = targets.locate("/data/./run/f");
    EXPECT_EQ(one.detector, "1");
    EXPECT_EQ(one.target, "/data/./");
    EXPECT_EQ(one.name, "run/f");
    EXPECT_EQ(targets.locate("/data/two/./f").detector, "2");
    EXPECT_EQ(targets.locate("/data/two/./f").name, "f");
}

TEST_F(TargetsTest, PartsOthersAtTheDotAndGuessesTheRest) {
    EXPECT_EQ(targets.locate("/else/./a/./f").detector, "");
    EXPECT_EQ(targets.locate("/else/./a/./f").name, "a/./f");
    EXPECT_TRUE(targets.locate("/else/./f").isCertain);
    EXPECT_EQ(targets.locate("/else/a/f").target, "/else/a/");
    EXPECT_FALSE(targets.locate("/else/a/f").isCertain);
    EXPECT_EQ(targets.locate("").name, "");
}

TEST_F(TargetsTest, FindsASecondLineInOne) {
    EXPECT_EQ(targets.secondBeginning("/data/./f"), std::string_view::npos);
    EXPECT_EQ(targets.secondBeginning("/data/./half/data/./f"), 12U);
    EXPECT_EQ(targets.secondBeginning("/data/./half/data/two/./f"), 12U);
    EXPECT_EQ(targets.secondBeginning("usershift: 1/data/./f"), 12U);
}

} // namespace

} // namespace relay
