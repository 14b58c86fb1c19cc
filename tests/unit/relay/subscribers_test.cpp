// Who gets the records, and how far each has got.
#include "relay/subscribers.h"
#include "tests/unit/relay/scratch.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <gtest/gtest.h>

namespace relay {

namespace {

constexpr std::int64_t count = 2000;

class SubscribersTest : public testing::Test {
protected:
    SubscribersTest() {
        std::vector<Record> records(static_cast<std::size_t>(count));
        std::uint64_t inode = 0;
        for (Record& each : records) {
            each.path = "/d/./f" + std::to_string(++inode);
            each.identity = Identity{10, 20, inode};
        }
        log.append(records, {1, 2, "pipe", 1});
    }

    /// One that has nothing of it yet, and is to have the last ones at most.
    Subscribers::Shared lagging(std::int64_t maxBacklog) {
        SubscriberSettings settings;
        settings.name = "lagging";
        settings.maxBacklog = maxBacklog;
        bool isNew = false;
        return subscribers.create(settings, isNew);
    }

    Scratch scratch;
    RecordLog log{scratch.path("log")};
    Subscribers subscribers{log, {}};
    LogSettings limits;
};

TEST_F(SubscribersTest, HoldBackWhatTheyHaveNotAcknowledged) {
    const auto subscriber = lagging(0);
    subscriber->acknowledge(70, 0);
    subscribers.removeOld(limits, INT64_MAX);
    EXPECT_EQ(log.figures().first, 71);
    EXPECT_EQ(subscriber->figures().dropped, 0);
}

TEST_F(SubscribersTest, CountWhatIsLostToTheBound) {
    const auto subscriber = lagging(10);
    subscribers.removeOld(limits, INT64_MAX);
    EXPECT_EQ(log.figures().first, count - 9);
    EXPECT_EQ(subscriber->figures().dropped, count - 10);
}

// Who found them gone and not counted would take them for records that he did not want.
TEST_F(SubscribersTest, CountWhatIsLostBeforeItIsRemoved) {
    const auto subscriber = lagging(10);
    SQLite::Database(scratch.path("log/relay.db"), SQLite::OPEN_READWRITE)
        .exec("CREATE TRIGGER refuse BEFORE DELETE ON records "
              "BEGIN SELECT raise(ABORT, 'refused'); END");
    EXPECT_THROW(subscribers.removeOld(limits, INT64_MAX), DatabaseError);
    EXPECT_EQ(log.figures().first, 1);
    EXPECT_EQ(subscriber->figures().dropped, count - 10);
}

} // namespace

} // namespace relay
