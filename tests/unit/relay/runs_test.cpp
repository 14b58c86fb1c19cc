// Runs: which files belong together, when a run has ended, whether it is complete, and its digests.
#include "relay/digests.h"
#include "relay/runs.h"
#include "tests/unit/relay/scratch.h"

#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace relay {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr std::int64_t second = 1000000000;
constexpr const char* usual = "/(?P<run>r[0-9]+)/[a-z]+_(?P<index>[0-9]+)$";

TEST(RunPattern, FindsRunDetectorAndIndex) {
    const RunPattern pattern("/(?P<detector>[a-z]+)/(?P<run>[^/]+)/img_(?P<index>[0-9]+)\\.cbf$");
    ASSERT_EQ(pattern.problem(), "");
    const auto place = pattern.find("/data/./eiger/scan 7/img_00042.cbf");
    ASSERT_TRUE(place.has_value());
    EXPECT_EQ(place->run, "scan 7");
    EXPECT_EQ(place->detector, "eiger");
    EXPECT_EQ(place->index, 42);
    EXPECT_FALSE(pattern.find("/data/./eiger/scan 7/notes.txt").has_value());
}

TEST(RunPattern, TakesAnyBytesAndNamesAsLongAsTheyCome) {
    const RunPattern pattern("/(?P<run>[^/]+)/(.*)*x$");
    EXPECT_EQ(pattern.find("/\xff\n\xfe/x")->run, "\xff\n\xfe");
    EXPECT_FALSE(pattern.find("/r/" + std::string(65536, 'a')).has_value());
}

TEST(RunPattern, HasNoIndexWhereThereIsNoNumberOrTooLargeAOne) {
    const RunPattern pattern("/(?P<run>r[0-9]+)/(?:f_(?P<index>[0-9]+))?");
    EXPECT_EQ(pattern.find("/r1/f_12")->index, 12);
    EXPECT_EQ(pattern.find("/r1/f_999999999999")->index, 999999999999);
    EXPECT_EQ(pattern.find("/r1/f_1000000000000")->index, std::nullopt);
    EXPECT_EQ(pattern.find("/r1/other")->index, std::nullopt);
}

TEST(RunPattern, NamesWhatIsWrong) {
    EXPECT_THAT(RunPattern("(?P<run>").problem(), HasSubstr("no regular expression"));
    EXPECT_THAT(RunPattern("/x").problem(), HasSubstr("(?P<run>...)"));
    EXPECT_THAT(RunPattern("(?P<run>x)(?P<indx>y)").problem(), HasSubstr("\"indx\""));
    EXPECT_EQ(RunPattern("").problem(), "");
    EXPECT_FALSE(RunPattern("").find("/x").has_value());
}

Run runOf(std::int64_t files, std::vector<RunPart> parts, std::optional<std::int64_t> expected) {
    Run run;
    run.files = files;
    run.parts = std::move(parts);
    run.expected = expected;
    return run;
}

TEST(Judge, CountsWhatIsMissingBelowTheHighestIndex) {
    const Judgement judgement = judge(runOf(3, {{"1", 3, 1, 5}}, {}), {});
    EXPECT_EQ(judgement.isComplete, false);
    EXPECT_EQ(judgement.missing, 2);
    EXPECT_EQ(judgement.why, "2 indices are missing");
}

TEST(Judge, CountsFromZeroIfThereIsAnIndexZero) {
    EXPECT_EQ(judge(runOf(3, {{"1", 3, 0, 2}}, {}), {}).isComplete, true);
    EXPECT_EQ(judge(runOf(2, {{"1", 2, 2, 3}}, {}), {}).missing, 1);
}

TEST(Judge, KnowsWhatIsMissingAtTheEndByTheExpectedNumber) {
    const Judgement judgement = judge(runOf(3, {{"1", 3, 1, 3}}, 5), {});
    EXPECT_EQ(judgement.isComplete, false);
    EXPECT_EQ(judgement.missing, 2);
    EXPECT_EQ(judgement.why, "3 of 5 files, 2 indices are missing");
}

TEST(Judge, DoesNotGuessWhichOfSeveralDetectorsHasNotSentAll) {
    const Judgement judgement = judge(runOf(4, {{"1", 2, 1, 2}, {"2", 2, 1, 2}}, 6), {});
    EXPECT_EQ(judgement.missing, 0);
    EXPECT_EQ(judgement.why, "4 of 6 files");
}

TEST(Judge, DoesNotCallCompleteWhatHasTooManyOrWhatNothingIsKnownOf) {
    EXPECT_EQ(judge(runOf(6, {{"1", 6, 1, 6}}, 5), {}).why, "6 files where 5 were expected");
    EXPECT_EQ(judge(runOf(6, {{"1", 0, 0, 0}}, {}), {}).isComplete, std::nullopt);
    EXPECT_EQ(judge(runOf(6, {{"1", 0, 0, 0}}, 6), {}).isComplete, true);
    EXPECT_EQ(judge(runOf(0, {}, 6), {}).why, "0 of 6 files");
}

class RunsTest : public testing::Test {
protected:
    RunsTest() { settings.pattern = usual; }

    Runs& runs() {
        if (!made) {
            made.emplace(settings, log);
        }
        return *made;
    }

    void append(const Record& record) {
        runs();
        std::vector<Record> records = {record};
        log.append(records, {0, 0, "", 0});
    }

    /// A file that comes at that second.
    void file(const std::string& path, std::int64_t at, std::int64_t size = 10,
              const std::string& detector = "1") {
        Record record;
        record.path = path;
        record.detector = detector;
        record.identity = Identity{size, at, static_cast<std::uint64_t>(at)};
        record.arrival = at * second;
        append(record);
    }

    void files(const std::string& run, const std::vector<int>& indices, std::int64_t at = 1) {
        for (const int each : indices) {
            file("/d/./" + run + "/f_" + std::to_string(each), at);
        }
    }

    /// What the log has been told of runs.
    std::vector<std::string> told() {
        Filter filter;
        filter.kinds = {Kind::run};
        std::vector<std::string> lines;
        for (const Record& each : log.read(0, filter, 1000).records) {
            lines.push_back(each.path);
        }
        return lines;
    }

    relay::Run runNamed(const std::string& name) { return runs().find(name).value(); }

    Scratch scratch;
    RecordLog log{scratch.path("log")};
    RunSettings settings;
    std::optional<Runs> made;
};

TEST_F(RunsTest, BeginsWithTheFirstFileAndCounts) {
    files("r1", {1, 2, 3, 4}, 5);
    file("/d/./none/g_1", 6);
    runs().follow(7 * second);
    const auto run = runNamed("r1");
    EXPECT_EQ(run.state, RunState::open);
    EXPECT_EQ(run.files, 4);
    EXPECT_EQ(run.bytes, 40);
    EXPECT_EQ(run.first, 5 * second);
    EXPECT_EQ(runs().position(), 5);
    EXPECT_FALSE(runs().find("none").has_value());
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(RunsTest, IsEndedByACommandWithAllThatIsInTheLog) {
    files("r1", {1, 2, 4});
    const auto run = runs().end("r1", 5);
    ASSERT_TRUE(run.has_value());
    EXPECT_EQ(run->state, RunState::ended);
    ASSERT_THAT(told(), SizeIs(1));
    EXPECT_EQ(log.record(4)->path, told()[0]); // behind the last file's
    EXPECT_THAT(told()[0],
                StartsWith("run: {\"event\":\"ended\",\"run\":\"r1\",\"state\":\"ended\","
                           "\"complete\":false,\"why\":\"3 of 5 files, 2 indices are "
                           "missing\",\"by\":\"a command\",\"files\":3,\"bytes\":30,"
                           "\"expected\":5,"));
    EXPECT_THAT(told()[0],
                HasSubstr("\"missing_count\":2,\"missing\":[{\"detector\":\"1\",\"first\":3,"
                          "\"last\":3},{\"detector\":\"1\",\"first\":5,\"last\":5}],\"detectors\":["
                          "{\"detector\":\"1\",\"indices\":3,\"lowest\":1,\"highest\":4}]}"));
}

TEST_F(RunsTest, IsEndedOnceHoweverOftenThatIsSaid) {
    files("r1", {1, 2});
    runs().end("r1", 2);
    EXPECT_EQ(runs().end("r1", 2)->state, RunState::ended);
    EXPECT_EQ(runs().end("r1", {})->expected, 2);
    EXPECT_THAT(told(), SizeIs(1));
    runs().end("r1", 3);
    EXPECT_THAT(told(), SizeIs(2));
}

TEST_F(RunsTest, DoesNotEndWhatHasNotBegunUnlessFilesAreExpected) {
    EXPECT_FALSE(runs().end("r9", {}).has_value());
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_TRUE(runs().end("r9", 5).has_value());
    EXPECT_THAT(told()[0], HasSubstr("\"why\":\"0 of 5 files\""));
}

TEST_F(RunsTest, IsReopenedByLateFilesAndEndsWhenNothingIsMissingAnyMore) {
    files("r1", {1, 2, 5});
    runs().end("r1", 5);
    files("r1", {3}, 20);
    runs().follow(21 * second);
    EXPECT_EQ(runNamed("r1").state, RunState::ending);
    ASSERT_THAT(told(), SizeIs(2));
    EXPECT_THAT(told()[1], StartsWith("run: {\"event\":\"reopened\",\"run\":\"r1\",\"state\":"
                                      "\"ending\",\"complete\":false,\"why\":\"4 of 5 files, "
                                      "1 index is missing\",\"by\":\"a late file\""));
    files("r1", {4}, 22);
    runs().follow(22 * second);
    EXPECT_EQ(runNamed("r1").state, RunState::ended);
    ASSERT_THAT(told(), SizeIs(3));
    EXPECT_THAT(told()[2], HasSubstr("\"complete\":true,\"why\":\"all 5 files\""));
    EXPECT_THAT(told()[2], HasSubstr("\"reopened\":1"));
    EXPECT_THAT(runs().describe(runNamed("r1"), 10)["missing"], IsEmpty());
}

TEST_F(RunsTest, EndsAgainAfterAWhileIfSomethingIsStillMissing) {
    files("r1", {1, 5});
    runs().end("r1", 5);
    files("r1", {3}, 20);
    runs().follow(24 * second);
    EXPECT_THAT(told(), SizeIs(2));
    runs().follow(25 * second);
    ASSERT_THAT(told(), SizeIs(3));
    EXPECT_THAT(told()[2], HasSubstr("\"missing_count\":2"));
}

TEST_F(RunsTest, IsEndedByQuiet) {
    settings.quiet = 60;
    files("r1", {1, 2}, 100);
    runs().follow(159 * second);
    EXPECT_THAT(told(), IsEmpty());
    runs().follow(160 * second);
    ASSERT_THAT(told(), SizeIs(1));
    EXPECT_THAT(told()[0], HasSubstr("\"by\":\"quiet\""));
}

TEST_F(RunsTest, IsForgottenIfNobodyEverEndsIt) {
    settings.forgotten = 100;
    files("r1", {1}, 1);
    runs().follow(100 * second);
    EXPECT_THAT(told(), IsEmpty());
    runs().follow(101 * second);
    EXPECT_THAT(told(), SizeIs(1));
}

TEST_F(RunsTest, IsEndedByASentinelOnceTheFilesThatItOvertookAreThere) {
    settings.sentinel = "/(?P<run>r[0-9]+)/DONE$";
    files("r1", {1, 3}, 10);
    file("/d/./r1/DONE", 11);
    runs().follow(12 * second);
    EXPECT_EQ(runNamed("r1").state, RunState::ending);
    files("r1", {2}, 15);
    runs().follow(19 * second);
    EXPECT_THAT(told(), IsEmpty());
    runs().follow(20 * second);
    ASSERT_THAT(told(), SizeIs(1));
    EXPECT_THAT(told()[0], HasSubstr("\"complete\":true"));
    EXPECT_THAT(told()[0], HasSubstr("\"by\":\"a sentinel file\",\"files\":3"));
}

TEST_F(RunsTest, IsEndedByTheNextRunOfAllItsDetectors) {
    settings.isEndedByNext = true;
    file("/d/./r1/f_1", 10, 1, "1");
    file("/e/./r1/f_1", 10, 1, "2");
    file("/d/./r2/f_1", 11, 1, "1");
    runs().follow(100 * second);
    EXPECT_EQ(runNamed("r1").state, RunState::open);
    file("/e/./r2/f_1", 101, 1, "2");
    file("/e/./r1/f_2", 102, 1, "2"); // overtaken
    runs().follow(106 * second);
    EXPECT_EQ(runNamed("r1").state, RunState::ending);
    runs().follow(107 * second);
    ASSERT_THAT(told(), SizeIs(1));
    EXPECT_THAT(told()[0], HasSubstr("\"run\":\"r1\",\"state\":\"ended\""));
    EXPECT_THAT(told()[0], HasSubstr("\"by\":\"the next run\",\"files\":3"));
    EXPECT_EQ(runNamed("r2").state, RunState::open);
}

TEST_F(RunsTest, CountsANewFileOfAnOldNameOnceWithItsNewSize) {
    file("/d/./r1/f_1", 1, 10);
    file("/d/./r1/f_1", 2, 300);
    runs().follow(3 * second);
    const auto run = runNamed("r1");
    EXPECT_EQ(run.files, 1);
    EXPECT_EQ(run.bytes, 300);
    EXPECT_EQ(judge(run, settings).missing, 0);
    const auto found = runs().files(run, "", 10);
    ASSERT_THAT(found, SizeIs(1));
    EXPECT_EQ(found[0].sequence, 2);
}

TEST_F(RunsTest, GoesOnWhereItWasAndCountsNothingTwiceAfterAFailure) {
    files("r1", {1, 2, 3, 4});
    const auto execute = [this](const char* statement) {
        log.change([statement](SQLite::Database& database) {
            database.exec(statement);
            return std::vector<Record>();
        });
    };
    execute("CREATE TRIGGER full BEFORE INSERT ON run_files WHEN new.number = 3 "
            "BEGIN SELECT raise(ABORT, 'no room'); END");
    EXPECT_THROW(runs().follow(2 * second), DatabaseError);
    EXPECT_FALSE(runs().find("r1").has_value());
    execute("DROP TRIGGER full");
    runs().follow(2 * second);
    made.reset();
    files("r1", {5});
    runs().follow(3 * second);
    EXPECT_EQ(runNamed("r1").files, 5);
    EXPECT_EQ(judge(runNamed("r1"), settings).missing, 0);
}

TEST_F(RunsTest, LeavesOutSpansAboveTheLimitAndKeepsTheirNumber) {
    std::vector<int> odd;
    for (int index = 1; index <= 501; index += 2) {
        odd.push_back(index);
    }
    files("r1", odd);
    runs().end("r1", {});
    EXPECT_THAT(told()[0], HasSubstr("\"missing_count\":250"));
    EXPECT_THAT(told()[0], testing::Not(HasSubstr("\"first\":202,")));
    EXPECT_THAT(runs().describe(runNamed("r1"), 1000)["missing"], SizeIs(250));
}

TEST_F(RunsTest, WaitsUntilTheRunHasEndedOrHasAll) {
    runs();
    EXPECT_FALSE(runs().await("r1", {}, std::chrono::milliseconds(1)).has_value());
    std::thread other([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        files("r1", {1, 2});
        runs().follow(2 * second);
    });
    const auto run = runs().await("r1", 2, std::chrono::seconds(20));
    other.join();
    ASSERT_TRUE(run.has_value());
    EXPECT_EQ(run->state, RunState::open);
    EXPECT_EQ(judge(*run, settings).isComplete, true);
    EXPECT_EQ(runs().await("r1", 3, std::chrono::milliseconds(1))->files, 2);
}

TEST_F(RunsTest, KeepsDigestsAndSaysWhichAreToBeTaken) {
    settings.checksum = Checksum::xxh3;
    files("r1", {1, 2});
    runs().follow(2 * second);
    auto pending = runs().undigested(0, 10);
    ASSERT_THAT(pending, SizeIs(2));
    EXPECT_EQ(runs().pendingDigests(runNamed("r1")), 2);
    pending[0].digestState = DigestState::taken;
    pending[0].digest = "xxh3:00ff";
    pending[1].digestState = DigestState::impossible;
    pending[1].digest = "it is gone";
    file("/d/./r1/f_2", 3); // a new one: the digest of the old one is none of its
    runs().follow(3 * second);
    runs().setDigests(pending);
    EXPECT_EQ(runs().pendingDigests(runNamed("r1")), 1);
    const auto found = runs().files(runNamed("r1"), "", 10);
    EXPECT_EQ(jsonText(jsonOf(found[0])),
              "{\"path\":\"/d/./r1/f_1\",\"seq\":1,\"detector\":\"1\",\"index\":1,\"size\":10,"
              "\"mtime\":\"0.000000001\",\"digest\":\"xxh3:00ff\"}");
}

TEST_F(RunsTest, ForgetsWhatIsOldAndHasEnded) {
    files("r1", {1, 2}, 10);
    files("r2", {1}, 10);
    runs().end("r1", {});
    runs().removeOld(10 * second);
    EXPECT_TRUE(runs().find("r1").has_value());
    runs().removeOld(INT64_MAX);
    EXPECT_FALSE(runs().find("r1").has_value());
    EXPECT_TRUE(runs().find("r2").has_value());
    EXPECT_THAT(runs().latest(10), SizeIs(1));
}

TEST_F(RunsTest, NamesAreAnyBytes) {
    settings.pattern = "/(?P<run>[^/]+)/f$";
    file("/\xff/f", 1);
    runs().end("\xff", {});
    EXPECT_THAT(told()[0], HasSubstr("\"run_percent\":\"%FF\""));
    EXPECT_THAT(told()[0], HasSubstr("\"complete\":null"));
}

class DigestsTest : public RunsTest {
protected:
    DigestsTest() {
        settings.checksum = Checksum::xxh3;
        settings.pattern = "/(?P<run>r[0-9]+)/";
    }

    /// A file that is there, as it is announced.
    std::string real(const std::string& name, const std::string& text) {
        return announced(scratch.file(name, text));
    }

    std::string announced(const std::string& path) {
        struct stat status {};
        ::stat(path.c_str(), &status);
        Record record;
        record.path = path;
        record.arrival = second;
        record.identity = Identity{
            status.st_size, status.st_mtim.tv_sec * second + status.st_mtim.tv_nsec, status.st_ino};
        append(record);
        return path;
    }

    /// What came of the digests of run r1, by path.
    std::vector<std::string> taken() {
        runs().follow(second);
        const Digests digests(runs(), [this](std::string_view) { return scratch.path("").size(); });
        for (int n = 0; n < 1000 && runs().pendingDigests(runNamed("r1")) > 0; ++n) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::vector<std::string> found;
        for (const RunFile& each : runs().files(runNamed("r1"), "", 100)) {
            found.push_back(each.digest);
        }
        return found;
    }
};

TEST_F(DigestsTest, AreThoseOfTheUsualTools) {
    real("r1/a", "");
    real("r1/b", "hello\n");
    EXPECT_THAT(taken(), ElementsAre("xxh3:99aa06d3014798d86001c324468d497f",
                                     "xxh3:6bba86c7e069f56d5a10b435f1c8e49c"));
}

TEST_F(DigestsTest, AreSha256WhereThatIsWanted) {
    settings.checksum = Checksum::sha256;
    real("r1/b", "hello\n");
    EXPECT_THAT(
        taken(),
        ElementsAre("sha256:5891b5b522d5df086d0ff0b110fbd9d21bb4fc7163af34d08286a2e846f6be03"));
}

TEST_F(DigestsTest, AreOfTheFileThatWasAnnouncedOrThereIsNone) {
    std::filesystem::remove(real("r1/a-gone", "x"));
    const std::string changed = real("r1/b-changed", "x");
    scratch.file("r1/b-changed", "longer");
    scratch.file("elsewhere/secret", "x");
    std::filesystem::create_symlink(scratch.path("elsewhere"), scratch.path("r1/c-link"));
    announced(scratch.path("r1/c-link/secret"));
    EXPECT_THAT(taken(),
                ElementsAre("it is gone", "another file has its name", "a link leads to it"));
}

TEST_F(DigestsTest, KeepToTheRate) {
    settings.checksumRate = 1 << 20U;
    settings.checksumThreads = 3;
    for (const char* const name : {"r1/a", "r1/b", "r1/c"}) {
        real(name, std::string(256UL * 1024, 'x'));
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(taken(), testing::Each(StartsWith("xxh3:")));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(700));
}

TEST_F(DigestsTest, EndAtOnceAndAreTakenByTheNextStart) {
    settings.checksumRate = 1;
    real("r1/a", std::string(1024UL * 1024, 'x'));
    runs().follow(second);
    {
        const Digests digests(runs(), [](std::string_view) { return std::size_t{1}; });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(runs().pendingDigests(runNamed("r1")), 1);
}

} // namespace

} // namespace relay
