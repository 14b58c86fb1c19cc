// Turning the detector blocks of the configuration into workers.
#include "daemon/daemon.h"
#include "tests/unit/support/allocations.h"
#include "tests/unit/support/configured_test.h"
#include "tests/unit/support/open_worker.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class DetectorDefinitions : public ConfiguredTest {
protected:
    /// The detectors of a configuration file with these lines, in the map's order.
    std::vector<std::string> detectorsOf(const std::vector<std::string>& lines) {
        configure(lines);
        const Daemon daemon;
        std::vector<std::string> described;
        for (const auto& [id, worker] : daemon.detectors) {
            described.push_back(id + " -> " + describe(*worker));
        }
        return described;
    }
};

} // namespace

TEST_F(DetectorDefinitions, GiveNoWorkerWithoutABlock) {
    EXPECT_THAT(detectorsOf({"remoteIP 10.0.0.1", "source /data"}), IsEmpty());
    EXPECT_TRUE(Worker::workers.empty());
}

TEST_F(DetectorDefinitions, PassEveryKeyToTheWorker) {
    EXPECT_THAT(detectorsOf({"detectorID 1", "remoteIP 10.0.0.1", "source data", "target /images",
                             "minpause 500", "interrun_pause 20"}),
                ElementsAre("1 -> 1|10.0.0.1|/data/|/images/.|500|20"));
}

TEST_F(DetectorDefinitions, AreOrderedByTheBytesOfTheirIds) {
    EXPECT_THAT(detectorsOf({"detectorID b", "detectorID B", "detectorID A", "detectorID 10",
                             "detectorID 9"}),
                ElementsAre("10 -> 10||/|/.|0|0", "9 -> 9||/|/.|0|0", "A -> A||/|/.|0|0",
                            "B -> B||/|/.|0|0", "b -> b||/|/.|0|0"));
}

TEST_F(DetectorDefinitions, BecomeWorkersInTheOrderOfTheFile) {
    configure({"detectorID B", "detectorID C", "detectorID A"});
    const BlockRecorder recorder(sizeof(Worker));
    const Daemon daemon;
    ASSERT_EQ(daemon.detectors.size(), 3U);
    const int orderOfB = recorder.orderOf(daemon.detectors.at("B"));
    const int orderOfC = recorder.orderOf(daemon.detectors.at("C"));
    const int orderOfA = recorder.orderOf(daemon.detectors.at("A"));
    EXPECT_GE(orderOfB, 0);
    EXPECT_LT(orderOfB, orderOfC);
    EXPECT_LT(orderOfC, orderOfA);
}

TEST_F(DetectorDefinitions, HandThePausesOfABlockOnToTheNext) {
    EXPECT_THAT(detectorsOf({"detectorID 1", "minpause 500", "interrun_pause 20", "detectorID 2",
                             "detectorID 3", "minpause 7", "detectorID 4"}),
                ElementsAre("1 -> 1||/|/.|500|20", "2 -> 2||/|/.|500|20", "3 -> 3||/|/.|7|20",
                            "4 -> 4||/|/.|7|20"));
}

TEST_F(DetectorDefinitions, HandAPauseOnWhenTheNextOneIsNoNumber) {
    EXPECT_THAT(detectorsOf({"detectorID 1", "minpause 500", "detectorID 2", "minpause soon"}),
                ElementsAre("1 -> 1||/|/.|500|0", "2 -> 2||/|/.|500|0"));
}

TEST_F(DetectorDefinitions, DoNotHandTheWordsOn) {
    EXPECT_THAT(detectorsOf({"detectorID 1", "remoteIP 10.0.0.1", "source /a", "target /b",
                             "detectorID 2"}),
                ElementsAre("1 -> 1|10.0.0.1|/a/|/b/.|0|0", "2 -> 2||/|/.|0|0"));
}

TEST_F(DetectorDefinitions, GiveABlockWithoutValueTheEmptyId) {
    EXPECT_THAT(detectorsOf({"detectorID", "remoteIP 10.0.0.1"}),
                ElementsAre(" -> |10.0.0.1|/|/.|0|0"));
}

TEST_F(DetectorDefinitions, IgnoreDetectorKeysBeforeTheFirstBlock) {
    EXPECT_THAT(detectorsOf({"remoteIP 10.9.9.9", "minpause 5", "detectorID 1", "detectorID 2"}),
                ElementsAre("1 -> 1||/|/.|0|0", "2 -> 2||/|/.|0|0"));
}

TEST_F(DetectorDefinitions, TakeTheFirstOccurrenceWithinABlock) {
    EXPECT_THAT(detectorsOf({"detectorID 1", "source /a", "source /b"}),
                ElementsAre("1 -> 1||/a/|/.|0|0"));
}

TEST_F(DetectorDefinitions, StartABlockInTheMiddleOfALineToo) {
    EXPECT_THAT(detectorsOf({"detectorID 1", "source /a detectorID 2", "target /t"}),
                ElementsAre("1 -> 1||/a/|/.|0|0", "2 -> 2||/|/t/.|0|0"));
}

TEST_F(DetectorDefinitions, KeepTheLastOfTwoWithTheSameId) {
    EXPECT_THAT(detectorsOf({"detectorID 1", "source /old", "detectorID 1", "source /new"}),
                ElementsAre("1 -> 1||/new/|/.|0|0"));
    EXPECT_EQ(Worker::workers.size(), 2U);
}
