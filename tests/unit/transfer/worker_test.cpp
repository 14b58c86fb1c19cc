// The worker object, its control surface, and the registry.
#include "tests/unit/support/open_worker.h"
#include "tests/unit/support/settings_test.h"

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class WorkerTest : public SettingsTest {
protected:
    static std::string sourceAfter(const std::string& source) {
        OpenWorker worker("1", "ip", "first", "first", 0, 0);
        worker.setSource(source);
        return worker.sourcePath;
    }

    static std::string targetAfter(const std::string& target) {
        OpenWorker worker("1", "ip", "first", "first", 0, 0);
        worker.setTarget(target);
        return worker.target();
    }
};

} // namespace

TEST_F(WorkerTest, KeepsWhatItIsGivenAndNormalisesSourceAndTarget) {
    const OpenWorker worker("det 1", "10.0.0.1", "data", "/images", 500, 20);
    EXPECT_EQ(describe(worker), "det 1|10.0.0.1|/data/|/images/.|500|20");
}

TEST_F(WorkerTest, StartsIdleAndEmpty) {
    const OpenWorker worker("1", "ip", "s", "t", 0, 0);
    EXPECT_FALSE(worker.isRunning());
    EXPECT_FALSE(worker.stopRequested);
    EXPECT_THAT(worker.pidList(), IsEmpty());
    EXPECT_THAT(worker.evaluators, IsEmpty());
}

TEST_F(WorkerTest, MakesTheSourceBeginAndEndInASlash) {
    EXPECT_EQ(sourceAfter("data"), "/data/");
    EXPECT_EQ(sourceAfter("/data"), "/data/");
    EXPECT_EQ(sourceAfter("data/"), "/data/");
    EXPECT_EQ(sourceAfter("/data/"), "/data/");
    EXPECT_EQ(sourceAfter("a/b"), "/a/b/");
    EXPECT_EQ(sourceAfter("//data//"), "//data//");
}

TEST_F(WorkerTest, MakesAnEmptySourceASlash) {
    EXPECT_EQ(sourceAfter(""), "/");
    EXPECT_EQ(sourceAfter("/"), "/");
    const OpenWorker worker("1", "ip", "", "t", 0, 0);
    EXPECT_EQ(worker.sourcePath, "/");
}

TEST_F(WorkerTest, MakesTheTargetEndInSlashAndDot) {
    EXPECT_EQ(targetAfter("/images"), "/images/.");
    EXPECT_EQ(targetAfter("/images/"), "/images/.");
    EXPECT_EQ(targetAfter("images"), "images/.");
    EXPECT_EQ(targetAfter("/"), "/.");
    EXPECT_EQ(targetAfter("/a.b"), "/a.b/.");
}

TEST_F(WorkerTest, MakesAnEmptyTargetSlashAndDot) {
    EXPECT_EQ(targetAfter(""), "/.");
}

TEST_F(WorkerTest, KeepsATargetThatHoldsSlashAndDotAnywhere) {
    EXPECT_EQ(targetAfter("/images/."), "/images/.");
    EXPECT_EQ(targetAfter("/x/./y"), "/x/./y");
    EXPECT_EQ(targetAfter("/a/.b/c"), "/a/.b/c");
    EXPECT_EQ(targetAfter("/data/.hidden"), "/data/.hidden");
    EXPECT_EQ(targetAfter("/a/../b"), "/a/../b");
}

TEST_F(WorkerTest, ForgetsTheTargetItHadBefore) {
    OpenWorker worker("1", "ip", "s", "/first", 0, 0);
    worker.setTarget("/second");
    worker.setTarget("/third/");
    EXPECT_EQ(worker.target(), "/third/.");
}

TEST_F(WorkerTest, GivesTheTargetAsACopy) {
    OpenWorker worker("1", "ip", "s", "/first", 0, 0);
    const std::string before = worker.target();
    worker.setTarget("/second");
    EXPECT_EQ(before, "/first/.");
}

TEST_F(WorkerTest, GivesItsPidsByReference) {
    OpenWorker worker("1", "ip", "s", "t", 0, 0);
    const std::vector<int>& pids = worker.pidList();
    worker.pids = {7, 8};
    EXPECT_THAT(pids, ElementsAre(7, 8));
}

TEST_F(WorkerTest, SetsTheRequestToStopWithoutWaiting) {
    OpenWorker worker("1", "ip", "s", "t", 0, 0);
    worker.stop(false);
    EXPECT_TRUE(worker.stopRequested);
}

TEST_F(WorkerTest, EntersTheRegistryAndLeavesItWhenDestroyed) {
    ASSERT_THAT(Worker::workers, IsEmpty());
    auto first = std::make_unique<OpenWorker>("1", "ip", "s", "t", 0, 0);
    auto second = std::make_unique<OpenWorker>("2", "ip", "s", "t", 0, 0);
    EXPECT_EQ(Worker::workers, (std::set<Worker*>{first.get(), second.get()}));
    first.reset();
    EXPECT_THAT(Worker::workers, ElementsAre(second.get()));
    const std::unique_ptr<Thread> base = std::move(second);
    EXPECT_EQ(Worker::workers.size(), 1U);
}

TEST_F(WorkerTest, LeavesTheRegistryWhenDeletedAsAThread) {
    Thread* const thread = new OpenWorker("1", "ip", "s", "t", 0, 0);
    EXPECT_EQ(Worker::workers.size(), 1U);
    delete thread;
    EXPECT_THAT(Worker::workers, IsEmpty());
}
