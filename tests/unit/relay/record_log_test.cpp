// The log of announcements on disk.
#include "relay/record_log.h"
#include "relay/salvage.h"
#include "tests/unit/relay/scratch.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace relay {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::int64_t second = 1000000000;

Record fileNamed(const std::string& path, std::uint64_t inode) {
    Record record;
    record.path = path;
    record.identity = Identity{10, 20, inode};
    record.arrival = static_cast<std::int64_t>(inode) * second;
    return record;
}

class RecordLogTest : public testing::Test {
protected:
    std::vector<std::int64_t> add(std::vector<Record> records) {
        log->append(records, {1, 2, "pipe", ++batch});
        std::vector<std::int64_t> numbers;
        numbers.reserve(records.size());
        for (const Record& each : records) {
            numbers.push_back(each.sequence);
        }
        return numbers;
    }

    /// So many files, the n-th with the number n as its inode and its second of arrival.
    void fill(std::uint64_t count) {
        std::vector<Record> records;
        for (std::uint64_t n = 1; n <= count; ++n) {
            records.push_back(fileNamed("/d/./f" + std::to_string(n), n));
        }
        add(records);
    }

    /// What a round of the removal does. Returns the last number of what is gone, 0 if nothing is.
    std::int64_t removeOld(std::int64_t upTo, std::int64_t before, std::int64_t largestBytes) {
        const std::int64_t last = log->oldTo(upTo, before, largestBytes);
        log->removeTo(last);
        return last;
    }

    void reopen() {
        log.reset();
        log.emplace(scratch.path("log"));
    }

    Scratch scratch;
    std::int64_t batch = 0;
    std::optional<RecordLog> log{std::in_place, scratch.path("log")};
};

TEST_F(RecordLogTest, KeepsARecordAsItIs) {
    Record record;
    record.kind = Kind::other;
    record.path = std::string("any\0bytes\xff", 10);
    record.detector = "7";
    record.type = FileType::link;
    record.way = Way::hasLink;
    record.identity = Identity{-1, INT64_MIN, UINT64_MAX};
    record.arrival = 5;
    EXPECT_THAT(add({record}), ElementsAre(1));
    reopen();
    const auto kept = log->record(1);
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->path, record.path);
    EXPECT_EQ(kept->kind, record.kind);
    EXPECT_EQ(kept->detector, record.detector);
    EXPECT_EQ(kept->type, record.type);
    EXPECT_EQ(kept->way, record.way);
    EXPECT_TRUE(kept->identity == record.identity);
    EXPECT_EQ(kept->arrival, 5);
    EXPECT_FALSE(log->record(2));
}

TEST_F(RecordLogTest, KnowsRepeatsAlsoWithinABatch) {
    Record gone;
    gone.path = "/d/./a";
    gone.isGone = true;
    Record unknown;
    unknown.path = "/d/./a";
    EXPECT_THAT(add({fileNamed("/d/./a", 1), fileNamed("/d/./a", 1), fileNamed("/d/./a", 2),
                     fileNamed("/d/./b", 1)}),
                ElementsAre(1, 0, 2, 3));
    EXPECT_THAT(add({fileNamed("/d/./a", 1), gone}), ElementsAre(0, 0));
    EXPECT_THAT(add({unknown, unknown}), ElementsAre(4, 5)) << "can't tell is not the same";
    EXPECT_EQ(log->record(1)->repeats, 2);
    EXPECT_TRUE(log->knows(fileNamed("/d/./a", 2)));
    EXPECT_FALSE(log->knows(fileNamed("/d/./a", 3)));
    EXPECT_TRUE(log->knows(unknown));
}

TEST_F(RecordLogTest, TellsWhatIsToBeTakenOutUntilItWas) {
    EXPECT_FALSE(log->openTakeOut());
    fill(1);
    reopen();
    const auto open = log->openTakeOut();
    ASSERT_TRUE(open);
    EXPECT_EQ(open->count, 1U);
    EXPECT_EQ(open->digest, 2U);
    EXPECT_EQ(open->pipe, "pipe");
    log->noteTakenOut(open->batch);
    reopen();
    EXPECT_FALSE(log->openTakeOut());
}

TEST_F(RecordLogTest, ReadsPartsInOrder) {
    fill(10);
    Filter filter;
    filter.paths = {"*[37]"};
    const Page page = log->read(0, filter, 1);
    ASSERT_EQ(page.records.size(), 1U);
    EXPECT_EQ(page.seenTo, 3);
    EXPECT_EQ(log->read(3, filter, 5).records.front().sequence, 7);
    EXPECT_EQ(log->read(3, filter, 5).seenTo, 10) << "there is nothing more";
    EXPECT_EQ(log->read(10, filter, 5).seenTo, 10);
}

TEST_F(RecordLogTest, FindsWhereToStart) {
    fill(100);
    EXPECT_EQ(log->positionOf({Start::Where::oldest, 0}), 0);
    EXPECT_EQ(log->positionOf({Start::Where::now, 0}), 100);
    EXPECT_EQ(log->positionOf({Start::Where::sequence, 7}), 6);
    EXPECT_EQ(log->positionOf({Start::Where::sequence, 1000}), 100);
    EXPECT_EQ(log->positionOf({Start::Where::sequence, 0}), 0);
    for (const std::int64_t time : {1, 2, 50, 99, 100}) {
        EXPECT_EQ(log->positionOf({Start::Where::time, time * second}), time - 1) << time;
    }
    EXPECT_EQ(log->positionOf({Start::Where::time, 1000 * second}), 100);
    log->removeTo(40);
    EXPECT_EQ(log->positionOf({Start::Where::oldest, 0}), 40);
    EXPECT_EQ(log->positionOf({Start::Where::time, 1}), 40);
    EXPECT_EQ(log->positionOf({Start::Where::time, 60 * second}), 59);
}

TEST_F(RecordLogTest, RemovesWhatIsOldButNoDeadLetter) {
    fill(10);
    log->addDeadLetter("s", {2, 5, 0, "why", {}});
    EXPECT_EQ(removeOld(4, 1000 * second, INT64_MAX), 4);
    EXPECT_FALSE(log->record(4));
    EXPECT_EQ(removeOld(10, 7 * second, INT64_MAX), 6) << "by age";
    EXPECT_EQ(removeOld(10, 0, INT64_MAX), 0);
    EXPECT_EQ(removeOld(9, 0, 1), 9) << "by size";
    EXPECT_EQ(log->figures().last, 10);
    EXPECT_TRUE(log->record(2));
    EXPECT_EQ(log->deadLetters("s").front().path, "/d/./f2");
    log->removeDeadLetter("s", 2);
    EXPECT_EQ(removeOld(10, 1000 * second, INT64_MAX), 10);
    EXPECT_EQ(log->figures().first, 0);
    reopen();
    EXPECT_THAT(add({fileNamed("/d/./new", 1)}), ElementsAre(11)) << "no number twice";
}

TEST_F(RecordLogTest, KeepsPositions) {
    log->setPosition({"a", 5, 1, "kind file\n", 7});
    log->setPosition({"b", 6, 0, "", 0});
    log->setPosition({"a", 8, 2, "kind file\n", 7});
    log->addDeadLetter("a", {1, 1, 1, "", {}});
    reopen();
    const auto found = log->positions();
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].acknowledged, 8);
    EXPECT_EQ(found[0].dropped, 2);
    EXPECT_EQ(found[0].maxBacklog, 7);
    log->removeSubscriber("a");
    EXPECT_EQ(log->positions().size(), 1U);
    EXPECT_EQ(log->countDeadLetters("a"), 0);
}

TEST_F(RecordLogTest, CarriesOverFromADamagedOne) {
    fill(5000);
    log->setPosition({"a", 5, 1, "kind file\n", 7});
    log.reset();
    const std::string file = scratch.path("log/relay.db");
    const auto size = std::filesystem::file_size(file);
    {
        std::fstream damage(file, std::ios::in | std::ios::out | std::ios::binary);
        damage.seekp(static_cast<std::streamoff>(size / 2));
        damage << std::string(20000, 'x');
    }
    testing::internal::CaptureStderr();
    log.emplace(scratch.path("log"));
    std::int64_t after = 0;
    std::size_t count = 0;
    for (Page page = log->read(0, {}, 1000); page.seenTo > after;
         page = log->read(after, {}, 1000)) {
        after = page.seenTo;
        count += page.records.size();
    }
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("is set aside as "));
    EXPECT_GT(count, 3000U);
    EXPECT_EQ(log->positions().front().acknowledged, 5);
    const std::int64_t last = log->figures().last;
    EXPECT_GT(last, 5000);
    reopen();
    EXPECT_EQ(add({fileNamed("/d/./new", 1)}).front(), last + 1);
}

TEST_F(RecordLogTest, CarriesOverEachTableWhateverHasBecomeOfTheOthers) {
    fill(3);
    log->setPosition({"a", 2, 0, "", 0});
    reopen(); // what there is stands in the file
    log.emplace(scratch.path("new"));
    log.reset();
    const std::string damaged = scratch.path("log/relay.db");
    SQLite::Database(damaged, SQLite::OPEN_READWRITE)
        .exec("INSERT INTO runs_position VALUES (1, 3); DROP TABLE runs; DROP TABLE intake");
    SQLite::Database into(scratch.path("new/relay.db"), SQLite::OPEN_READWRITE);
    EXPECT_FALSE(salvage(damaged, into));
    EXPECT_EQ(into.execAndGet("SELECT count(*) FROM records").getInt(), 3);
    EXPECT_EQ(into.execAndGet("SELECT acknowledged FROM subscribers").getInt(), 2);
    EXPECT_EQ(into.execAndGet("SELECT seq FROM runs_position").getInt(), 3);
}

TEST_F(RecordLogTest, IsOneRelaysAlone) {
    EXPECT_THROW(RecordLog(scratch.path("log")), std::runtime_error);
}

} // namespace

} // namespace relay
