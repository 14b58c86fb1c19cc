// From the pipe into the log, with ends at the worst moments.
#include "relay/intake.h"
#include "tests/unit/relay/scratch.h"

#include <chrono>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace relay {

namespace {

using testing::ElementsAre;

/// What stands for the death of the process.
struct Death {};

class IntakeTest : public testing::Test {
protected:
    IntakeTest() {
        settings.path = scratch.path("pipe");
        ::mkfifo(settings.path.c_str(), 0600);
        held = Descriptor(::open(settings.path.c_str(), O_RDWR | O_NONBLOCK));
    }

    void put(const std::string& text) const { ASSERT_TRUE(writeAll(held.get(), text)); }

    /// A life of the relay: takes in what is there. With `isKilled` it dies behind its first
    /// commit.
    void live(bool isKilled = false) {
        RecordLog log(scratch.path("log"));
        Intake intake(settings, -1, log, targets);
        if (isKilled) {
            intake.afterCommit = [] { throw Death(); };
        }
        try {
            while (intake.turn(0) > 0) {
            }
        } catch (const Death&) {
        }
    }

    std::vector<std::string> logged() {
        RecordLog log(scratch.path("log"));
        Filter all;
        all.kinds = {Kind::file, Kind::usershift, Kind::run, Kind::other};
        std::vector<std::string> paths;
        for (const Record& each : log.read(0, all, 1000).records) {
            paths.push_back(each.path);
        }
        return paths;
    }

    Scratch scratch;
    PipeSettings settings;
    Descriptor held;
    const Targets targets{"/nonexistent"};
};

TEST_F(IntakeTest, TakesWholeLinesAndLeavesHalfOnes) {
    put("/a/./1\nusershift: 1 2\n/a/./2\n/a/./ha");
    live();
    EXPECT_THAT(logged(), ElementsAre("/a/./1", "usershift: 1 2", "/a/./2"));
    EXPECT_EQ(bytesIn(held), 7U);
}

TEST_F(IntakeTest, DropsExactlyWhatAnEarlierLifeHasLogged) {
    put("usershift: 1 2\n/a/./1\n/a/./2\n");
    live(true);
    put("/a/./3\n");
    live();
    EXPECT_THAT(logged(), ElementsAre("usershift: 1 2", "/a/./1", "/a/./2", "/a/./3"));
    EXPECT_EQ(bytesIn(held), 0U);
}

TEST_F(IntakeTest, DropsNothingThatOnlyLooksLikeIt) {
    put("/a/./1\n");
    live(true);
    char byte = 0;
    ASSERT_EQ(::read(held.get(), &byte, 1), 1); // as if another program had taken something
    put("/a/./2\n");
    live();
    EXPECT_THAT(logged(), ElementsAre("/a/./1", "a/./1", "/a/./2"));
}

TEST_F(IntakeTest, DropsNothingOfAnotherPipe) {
    put("usershift: 1 2\n");
    live(true);
    held.reset();
    ::unlink(settings.path.c_str());
    ::mkfifo(settings.path.c_str(), 0600);
    held = Descriptor(::open(settings.path.c_str(), O_RDWR | O_NONBLOCK));
    put("usershift: 1 2\n");
    live();
    EXPECT_THAT(logged(), ElementsAre("usershift: 1 2", "usershift: 1 2"));
}

TEST_F(IntakeTest, DropsNothingTwice) {
    put("usershift: 1 2\n");
    live();
    put("usershift: 1 2\n");
    live();
    EXPECT_THAT(logged(), ElementsAre("usershift: 1 2", "usershift: 1 2"));
}

TEST_F(IntakeTest, LogsANewFileOfAnOldNameAmongWhatItDrops) {
    scratch.file("target/f", "1");
    const std::string line = scratch.path("target/./f") + "\n";
    put(line);
    live(true);
    std::filesystem::rename(scratch.path("target/f"), scratch.path("moved"));
    scratch.file("target/f", "another");
    live();
    EXPECT_EQ(logged().size(), 2U);
    EXPECT_EQ(bytesIn(held), 0U);
}

TEST_F(IntakeTest, RefusesWhatIsNoPipe) {
    settings.path = scratch.file("plain", "");
    RecordLog log(scratch.path("log"));
    EXPECT_THROW(Intake(settings, -1, log, targets), std::runtime_error);
}

TEST_F(IntakeTest, SaysWhenAnotherProgramReadsThePipe) {
    put("/a/./1\n/a/./2\n");
    {
        RecordLog log(scratch.path("log"));
        Intake intake(settings, -1, log, targets);
        intake.afterCommit = [this] {
            std::string stolen(7, '\0');
            ASSERT_EQ(::read(held.get(), stolen.data(), 7), 7);
            put("/a/./3\n");
        };
        testing::internal::CaptureStderr();
        intake.turn(0);
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    testing::HasSubstr("another program reads the pipe"));
    }
    EXPECT_THAT(logged(), testing::Contains("/a/./3")) << "what it took out itself is not lost";
}

TEST_F(IntakeTest, TakesInTogetherWhatComesByAndBy) {
    RecordLog log(scratch.path("log"));
    Intake intake(settings, -1, log, targets);
    const auto begin = std::chrono::steady_clock::now();
    for (int n = 0; n < 50; ++n) {
        put("/a/./" + std::to_string(n) + "\n");
        intake.turn(0);
    }
    const auto passed = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(intake.figures().records, 50);
    EXPECT_GE(passed / std::chrono::milliseconds(10), intake.figures().batches - 1);
}

TEST(DigestOf, DiffersForOtherBytes) {
    EXPECT_EQ(digestOf("abc"), digestOf("abc"));
    EXPECT_NE(digestOf("abc"), digestOf("acb"));
    EXPECT_NE(digestOf(""), digestOf(std::string(1, '\0')));
}

} // namespace

} // namespace relay
