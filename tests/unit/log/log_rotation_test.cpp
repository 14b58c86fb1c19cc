// Size-based rotation, and copying a whole file into the log.
#include "log/log_file.h"
#include "tests/unit/support/settings_test.h"
#include "transfer/thread.h"

#include <climits>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;

namespace {

class LogRotation : public SettingsTest {
protected:
    void SetUp() override {
        SettingsTest::SetUp();
        log.open(path);
    }

    void fill(std::size_t size) const { writeFile(path, std::string(size, 'x')); }

    /// True if a log of `size` bytes is rotated under this limit.
    bool rotates(std::size_t size, int limit) {
        fill(size);
        log.tryRotate(limit, 2);
        const bool rotated = exists(path + ".0");
        remove((path + ".0").c_str());
        return rotated;
    }

    const std::string path = scratch / "log";
    LogFile log{nullptr};
};

class LogFromFile : public LogRotation {
protected:
    const std::string other = scratch / "other";
};

} // namespace

TEST_F(LogRotation, KnowsTheSizeOfTheFile) {
    EXPECT_EQ(log.fileSize(), 0U);
    fill(12345);
    EXPECT_EQ(log.fileSize(), 12345U);
}

TEST_F(LogRotation, TakesAMissingFileAsEmpty) {
    ASSERT_EQ(remove(path.c_str()), 0);
    EXPECT_EQ(log.fileSize(), 0U);
    EXPECT_FALSE(exists(path));
}

TEST_F(LogRotation, RotatesAFileLargerThanTheLimitOnly) {
    EXPECT_FALSE(rotates(99, 100));
    EXPECT_FALSE(rotates(100, 100));
    EXPECT_TRUE(rotates(101, 100));
}

TEST_F(LogRotation, RotatesAnyNonEmptyFileUnderALimitOfZero) {
    EXPECT_FALSE(rotates(0, 0));
    EXPECT_TRUE(rotates(1, 0));
}

TEST_F(LogRotation, NeverRotatesUnderANegativeLimit) {
    EXPECT_FALSE(rotates(100000, -1));
    EXPECT_FALSE(rotates(100000, INT_MIN));
}

TEST_F(LogRotation, DoesNotRotateAMissingFile) {
    writeFile(path + ".0", "archive");
    ASSERT_EQ(remove(path.c_str()), 0);
    log.tryRotate(0, 2);
    EXPECT_EQ(readFile(path + ".0"), "archive");
}

TEST_F(LogRotation, ShiftsTheArchivesAndDropsTheOldest) {
    writeFile(path, "current");
    writeFile(path + ".0", "zero");
    writeFile(path + ".1", "one");
    writeFile(path + ".2", "two");
    log.rotate(2);
    EXPECT_THAT(namesIn(scratch.path()), ElementsAre("log.0", "log.1", "log.2"));
    EXPECT_EQ(readFile(path + ".0"), "current");
    EXPECT_EQ(readFile(path + ".1"), "zero");
    EXPECT_EQ(readFile(path + ".2"), "one");
    log << "next" << endl;
    EXPECT_EQ(readFile(path), "next\n");
}

TEST_F(LogRotation, MovesTheCurrentFileWhenThereIsNoArchive) {
    writeFile(path, "current");
    log.rotate(2);
    EXPECT_THAT(namesIn(scratch.path()), ElementsAre("log.0"));
    EXPECT_EQ(readFile(path + ".0"), "current");
}

TEST_F(LogRotation, StepsOverAMissingArchive) {
    writeFile(path, "current");
    writeFile(path + ".1", "one");
    log.rotate(3);
    EXPECT_THAT(namesIn(scratch.path()), ElementsAre("log.0", "log.2"));
    EXPECT_EQ(readFile(path + ".2"), "one");
}

TEST_F(LogRotation, ReplacesNumberZeroOnlyUnderACountOfZeroOrLess) {
    for (const int count : {0, -1, -100, INT_MIN}) {
        writeFile(path, "current");
        writeFile(path + ".0", "zero");
        writeFile(path + ".1", "one");
        log.rotate(count);
        EXPECT_THAT(namesIn(scratch.path()), ElementsAre("log.0", "log.1"));
        EXPECT_EQ(readFile(path + ".0"), "current");
        EXPECT_EQ(readFile(path + ".1"), "one");
    }
}

TEST_F(LogRotation, KeepsOneArchiveMoreThanTheCountSays) {
    for (int i = 0; i < 15; ++i) {
        writeFile(path, std::to_string(i));
        log.rotate(10);
    }
    EXPECT_EQ(namesIn(scratch.path()).size(), 11U);
    EXPECT_EQ(readFile(path + ".0"), "14");
    EXPECT_EQ(readFile(path + ".10"), "4");
}

TEST_F(LogRotation, HoldsTheMutexFromTheSizeCheckToTheLastRename) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    log.setMutex(&mutex);
    fill(100);
    pthread_mutex_lock(&mutex);
    std::thread rotating([this] { log.tryRotate(10, 2); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(exists(path));
    pthread_mutex_unlock(&mutex);
    rotating.join();
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
}

TEST_F(LogRotation, LosesNoLineWhileThreadsWriteAndRotate) {
    constexpr int lines = 300;
    constexpr int archives = 1000;
    const auto write = [this](char letter) {
        LogFile own(Thread::mainMutex);
        own.open(path);
        for (int i = 0; i < lines; ++i) {
            own << std::string(1, letter) << i << endl;
            own.tryRotate(100, archives);
        }
    };
    std::thread first(write, 'a');
    std::thread second(write, 'b');
    first.join();
    second.join();

    std::size_t found = 0;
    for (const std::string& name : namesIn(scratch.path())) {
        for (const std::string& line : linesOf(readFile(scratch / name))) {
            EXPECT_TRUE(line.at(0) == 'a' || line.at(0) == 'b');
            ++found;
        }
    }
    EXPECT_EQ(found, 2U * lines);
}

TEST_F(LogFromFile, AppendsTheWholeFileAsItIs) {
    writeFile(path, "before\n");
    writeFile(other, "one\ntwo without end");
    log.logFromFile(other);
    EXPECT_EQ(readFile(path), "before\none\ntwo without end");
    EXPECT_EQ(readFile(other), "one\ntwo without end");
}

TEST_F(LogFromFile, StopsAtANulByte) {
    writeFile(other, std::string("abc\0def", 7));
    log.logFromFile(other);
    EXPECT_EQ(readFile(path), "abc");
}

TEST_F(LogFromFile, WritesTheCollectedTextFirst) {
    writeFile(other, "file");
    log << "collected ";
    log.logFromFile(other);
    EXPECT_EQ(readFile(path), "collected file");
    log << flush;
    EXPECT_EQ(readFile(path), "collected file");
}

TEST_F(LogFromFile, CreatesTheLogForAnEmptyFileToo) {
    writeFile(other, "");
    ASSERT_EQ(remove(path.c_str()), 0);
    log.logFromFile(other);
    EXPECT_TRUE(exists(path));
    EXPECT_EQ(readFile(path), "");
}

TEST_F(LogFromFile, AppendsNothingForAMissingFileButWritesTheCollectedText) {
    log << "collected";
    log.logFromFile(scratch / "missing");
    EXPECT_EQ(readFile(path), "collected");
    EXPECT_FALSE(exists(scratch / "missing"));
}

TEST_F(LogFromFile, LocksTheMutex) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    log.setMutex(&mutex);
    writeFile(other, "file");
    pthread_mutex_lock(&mutex);
    std::thread copying([this] { log.logFromFile(other); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(readFile(path), "");
    pthread_mutex_unlock(&mutex);
    copying.join();
    EXPECT_EQ(readFile(path), "file");
    pthread_mutex_destroy(&mutex);
}
