// The log is read whole and in order, whatever happens to its files meanwhile.
#include "control/observe/log_follower.h"
#include "log/log_file.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace control {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

/// Keeps what was read, with "GAP" where lines may be missing.
class Collector : public LogSink {
public:
    void takeLine(std::string_view line) override {
        EXPECT_EQ(line.find('\n'), std::string_view::npos);
        text.append(line).append("\n");
    }
    void takeGap() override {
        text += "GAP\n";
        ++gaps;
    }

    std::string text;
    int gaps = 0;
};

bool believed(std::string_view /*date*/) {
    return true;
}

/// One that has looked already, when there was nothing.
class Follower : public LogFollower {
public:
    Follower(const std::string& log, int archives) : LogFollower(log, archives, believed) {
        Collector nothing;
        poll(nothing);
    }
};

std::string banner(const std::string& date) {
    return std::string(78, '+') + "\n\n++ skarn 3.7.1 started\n++ on " + date + "\n\n";
}

class LogFollowerTest : public testing::Test {
protected:
    LogFollowerTest() {
        std::string pattern = (fs::temp_directory_path() / "follower.XXXXXX").string();
        folder = mkdtemp(pattern.data());
        path = folder + "/skarn.log";
    }
    ~LogFollowerTest() override { fs::remove_all(folder); }

    void write(const std::string& text) const {
        std::ofstream(path, std::ios::binary | std::ios::app) << text;
    }

    std::string archive(int number) const { return path + "." + std::to_string(number); }

    /// As the daemon does it.
    void rotate(int highest) const {
        LogFile log(nullptr);
        log.open(path);
        log.rotate(highest);
    }

    std::string folder;
    std::string path;
};

TEST_F(LogFollowerTest, HandsOnWhatComes) {
    Follower follower(path, 2);
    Collector read;
    write("one\ntwo\n");
    follower.poll(read);
    EXPECT_EQ(read.text, "one\ntwo\n");
    follower.poll(read);
    write("three\n");
    follower.poll(read);
    EXPECT_EQ(read.text, "one\ntwo\nthree\n");
    EXPECT_EQ(follower.problem(), "");
    EXPECT_EQ(read.gaps, 0);
}

TEST_F(LogFollowerTest, WaitsForTheEndOfALine) {
    Follower follower(path, 2);
    Collector read;
    write("one\ntw");
    follower.poll(read);
    EXPECT_EQ(read.text, "one\n");
    write("o");
    follower.poll(read);
    EXPECT_EQ(read.text, "one\n");
    write("\nthree\nfo");
    follower.poll(read);
    EXPECT_EQ(read.text, "one\ntwo\nthree\n");
}

TEST_F(LogFollowerTest, BeginsWithTheLastBanner) {
    write("old\n" + banner("Monday"));
    write("file 0\n" + std::string(3000000, 'x') + "\n");
    rotate(2);
    write("file 1\n");
    LogFollower follower(path, 2, believed);
    Collector read;
    follower.poll(read);
    const std::string begin = banner("Monday") + "file 0\nx";
    EXPECT_EQ(read.text.substr(0, begin.size()), begin);
    EXPECT_EQ(read.text.substr(read.text.size() - 7), "file 1\n");
    EXPECT_EQ(follower.problem(), "");
    EXPECT_EQ(follower.archives(), 1);
    EXPECT_EQ(follower.bytes(), 7U);
}

TEST_F(LogFollowerTest, BelievesNoBannerThatTheDaemonCannotHaveWritten) {
    write(banner("Monday") + "one\n" + banner("Tuesday") + "two\nx" + banner("Monday"));
    LogFollower follower(path, 2, [](std::string_view date) { return date == "Monday"; });
    Collector read;
    follower.poll(read);
    EXPECT_EQ(read.text.substr(0, banner("").size() + 10), banner("Monday") + "one\n");
}

TEST_F(LogFollowerTest, BeginsAtTheEndWhereNoBannerIs) {
    write("one\n");
    rotate(2);
    write("two\n");
    LogFollower follower(path, 2, believed);
    Collector read;
    follower.poll(read);
    EXPECT_EQ(read.text, "");
    write("three\n");
    follower.poll(read);
    EXPECT_EQ(read.text, "three\n");
}

TEST_F(LogFollowerTest, FollowsThroughOneRotationAndThroughMany) {
    Follower follower(path, 5);
    Collector read;
    std::string written;
    const auto add = [&](const std::string& line) {
        write(line + "\n");
        written += line + "\n";
    };
    add("a");
    follower.poll(read);
    add("b"); // still unread when it is moved away
    rotate(5);
    add("c");
    follower.poll(read);
    EXPECT_EQ(read.text, written);
    EXPECT_EQ(follower.rotations(), 1U);
    for (int i = 0; i < 4; ++i) {
        add("d" + std::to_string(i));
        rotate(5);
    }
    follower.poll(read);
    EXPECT_EQ(read.text, written) << "nothing was written since the last rotation";
    add("e");
    follower.poll(read);
    EXPECT_EQ(read.text, written);
    EXPECT_EQ(follower.rotations(), 5U);
    EXPECT_EQ(read.gaps, 0);
}

TEST_F(LogFollowerTest, SaysWhenItsFileFellOffTheEnd) {
    Follower follower(path, 1);
    Collector read;
    write("a\n");
    follower.poll(read);
    for (int i = 0; i < 4; ++i) {
        write("b" + std::to_string(i) + "\n");
        rotate(1);
    }
    write("c\n");
    follower.poll(read);
    EXPECT_EQ(read.text, "a\nb0\nGAP\nc\n");
    EXPECT_EQ(read.gaps, 1);
}

TEST_F(LogFollowerTest, KeepsOneArchiveWhereNoneIsConfigured) {
    Follower follower(path, -3);
    Collector read;
    write("a\n");
    follower.poll(read);
    write("b\n");
    rotate(0);
    write("c\n");
    follower.poll(read);
    EXPECT_EQ(read.text, "a\nb\nc\n");
}

TEST_F(LogFollowerTest, BeginsAgainWithAFileThatWasEmptied) {
    Follower follower(path, 2);
    Collector read;
    write("one\ntwo\nhalf a li");
    follower.poll(read);
    fs::resize_file(path, 0);
    write("three\n");
    follower.poll(read);
    EXPECT_EQ(read.text, "one\ntwo\nGAP\nthree\n");
}

TEST_F(LogFollowerTest, SeesThatAFileWasEmptiedAndFilledAgain) {
    Follower follower(path, 2);
    Collector read;
    write("one\ntwo\n");
    follower.poll(read);
    fs::resize_file(path, 0);
    write("three\nfour\nfive\n"); // longer than before
    follower.poll(read);
    EXPECT_EQ(read.text, "one\ntwo\nGAP\nthree\nfour\nfive\n");
}

TEST_F(LogFollowerTest, GoesOnWithTheFileThatReplacesARemovedOne) {
    Follower follower(path, 2);
    Collector read;
    write("one\n");
    follower.poll(read);
    write("two\n");
    fs::remove(path);
    follower.poll(read);
    write("three\n");
    follower.poll(read);
    EXPECT_EQ(read.text, "one\ntwo\nGAP\nthree\n");
}

TEST_F(LogFollowerTest, EndsALineWhoseEndWasNeverWritten) {
    Follower follower(path, 2);
    Collector read;
    write("one\ncut o");
    follower.poll(read);
    rotate(2);
    write("two\n");
    follower.poll(read);
    EXPECT_EQ(read.text, "one\ncut o\ntwo\n");
}

TEST_F(LogFollowerTest, KeepsBothEndsOfALineWithoutEnd) {
    Follower follower(path, 2);
    Collector read;
    write("first" + std::string(1 << 20, 'x'));
    follower.poll(read);
    write(std::string(1 << 20, 'y') + "last\nnext\n");
    follower.poll(read);
    EXPECT_LT(read.text.size(), 200000U);
    EXPECT_EQ(read.text.substr(0, 6), "firstx");
    EXPECT_EQ(read.text.substr(read.text.size() - 11), "ylast\nnext\n");
}

TEST_F(LogFollowerTest, SaysWhyALogCannotBeRead) {
    Collector read;
    LogFollower missing(path, 2, believed);
    missing.poll(read);
    EXPECT_EQ(missing.problem(), "there is no " + path);

    LogFollower nothing("/dev/null", 2, believed);
    nothing.poll(read);
    EXPECT_THAT(nothing.problem(), HasSubstr("cannot read /dev/null: not a regular file"));

    LogFollower directory(folder, 2, believed);
    directory.poll(read);
    EXPECT_THAT(directory.problem(), HasSubstr("it is a directory"));

    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    LogFollower fifo(path, 2, believed); // an open would wait for a writer
    fifo.poll(read);
    EXPECT_THAT(fifo.problem(), HasSubstr("not a regular file"));
    EXPECT_EQ(read.text, "");
}

TEST_F(LogFollowerTest, FindsALogThatAppearsLater) {
    Follower follower(path, 2);
    Collector read;
    follower.poll(read);
    write("one\n");
    follower.poll(read);
    EXPECT_EQ(read.text, "one\n");
    EXPECT_EQ(follower.problem(), "");
}

/// What a writer writes, how often it rotates and when the follower looks, in any order.
TEST_F(LogFollowerTest, ReadsAllOfItInAnyOrderOfEvents) {
    for (std::uint32_t seed = 0; seed < 300; ++seed) {
        std::mt19937 random(seed);
        const auto draw = [&random](int below) {
            return std::uniform_int_distribution<int>(0, below - 1)(random);
        };
        const int highest = 1 + draw(6);
        const fs::path own = fs::path(folder) / std::to_string(seed);
        fs::create_directory(own);
        path = (own / "log").string();
        std::string written;
        Collector read;
        Follower follower(path, highest);
        int number = 0;
        int rotationsSinceLook = 0;
        for (int event = 0; event < 60; ++event) {
            const int kind = draw(10);
            if (kind < 5) {
                const std::string line = "line " + std::to_string(number++) + "\n";
                write(line);
                written += line;
            } else if (kind < 8 && rotationsSinceLook < highest && fs::exists(path)) {
                rotate(highest);
                ++rotationsSinceLook;
            } else if (kind >= 8) {
                follower.poll(read);
                rotationsSinceLook = 0;
                ASSERT_EQ(read.text, written) << "seed " << seed << " event " << event;
            }
        }
        follower.poll(read);
        ASSERT_EQ(read.text, written) << "seed " << seed;
        ASSERT_EQ(read.gaps, 0) << "seed " << seed;
    }
}

/// The follower looks while the daemon's own code writes and rotates on another thread.
TEST_F(LogFollowerTest, ReadsAllOfItWhileItIsRotated) {
    constexpr int lines = 20000;
    constexpr int highest = 12;
    constexpr int linesOfAFile = 20;
    std::atomic<int> looks(0);
    std::atomic<bool> done(false);
    std::string written;
    Follower follower(path, highest);
    Collector read;
    follower.poll(read); // before the first line: it begins with what comes after its first look
    std::thread writer([&] {
        pthread_mutex_t mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
        LogFile log(&mutex);
        log.open(path);
        for (int i = 0; i < lines; ++i) {
            log << "line " << i << endl;
            written += "line " + std::to_string(i) + "\n";
            if (i % linesOfAFile == 0) {
                log.tryRotate(10, highest);
            }
            // Not more rotations between two looks than there are archives.
            if (i % (linesOfAFile * (highest - 4)) == 0) {
                const int before = looks;
                for (int wait = 0; looks < before + 2 && wait < 10000; ++wait) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
            }
        }
        done = true;
    });
    while (!done) {
        follower.poll(read);
        ++looks;
    }
    writer.join();
    follower.poll(read);
    EXPECT_EQ(read.gaps, 0);
    EXPECT_TRUE(read.text == written) << read.text.size() << " of " << written.size() << " bytes";
    EXPECT_GT(follower.rotations(), 900U);
}

/// Takes nothing before it is let go.
class Gate : public Collector {
public:
    void takeLine(std::string_view line) override {
        opened.wait();
        Collector::takeLine(line);
    }

    std::promise<void> open;

private:
    std::shared_future<void> opened{open.get_future()};
};

TEST_F(LogFollowerTest, AReadingThatStandsStillIsLeftToItselfAndGoesOn) {
    write(banner("Monday") + "one\n");
    const auto gate = std::make_shared<Gate>();
    LogAside log(path.substr(1), 2, believed, gate);
    EXPECT_FALSE(log.poll());
    EXPECT_EQ(log.absolutePath(), path);
    EXPECT_EQ(log.problem(), "the log " + path + " can't be read: its file system does not answer");
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_FALSE(log.poll());
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(1));

    gate->open.set_value();
    bool isRead = false;
    for (int wait = 0; !isRead && wait < 10000; ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        isRead = log.poll();
    }
    EXPECT_TRUE(isRead);
    EXPECT_EQ(log.problem(), "");
    EXPECT_EQ(gate->text, banner("Monday") + "one\n");
    write("two\n");
    EXPECT_TRUE(log.poll());
    EXPECT_EQ(gate->text, banner("Monday") + "one\ntwo\n");
    EXPECT_EQ(log.follower().bytes(), gate->text.size());
}

} // namespace

} // namespace control
