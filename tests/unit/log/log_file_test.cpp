// Collecting text and writing it out.
#include "log/log_file.h"
#include "tests/unit/support/allocations.h"
#include "tests/unit/support/settings_test.h"
#include "transfer/thread.h"

#include <cstdio>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

class LogFileTest : public SettingsTest {
protected:
    const std::string path = scratch / "log";
    std::string content() const { return readFile(path); }
};

/// A plain mutex, of which the test can see whether it is held.
class Mutex {
public:
    Mutex() { pthread_mutex_init(&mutex, nullptr); }
    ~Mutex() { pthread_mutex_destroy(&mutex); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    pthread_mutex_t* get() { return &mutex; }

    bool isFree() {
        if (pthread_mutex_trylock(&mutex) != 0) {
            return false;
        }
        pthread_mutex_unlock(&mutex);
        return true;
    }

private:
    pthread_mutex_t mutex;
};

static_assert(!std::is_copy_constructible_v<LogFile> && !std::is_copy_assignable_v<LogFile>,
              "two objects with the same collected text would write it twice");

} // namespace

TEST_F(LogFileTest, WritesExactlyWhatIsInsertedAndALineFeed) {
    LogFile log(nullptr);
    log.open(path);
    log << "++ " << std::string("text") << ' ' << 42 << endl;
    EXPECT_EQ(content(), "++ text 42\n");
}

TEST_F(LogFileTest, AppendsToWhatTheFileHolds) {
    writeFile(path, "old\n");
    LogFile log(nullptr);
    log.open(path);
    log << "new" << endl;
    EXPECT_EQ(content(), "old\nnew\n");
}

TEST_F(LogFileTest, WritesNothingBeforeALineIsEndedOrFlushed) {
    LogFile log(nullptr);
    log.open(path);
    log << "collected";
    EXPECT_EQ(content(), "");
    log << flush;
    EXPECT_EQ(content(), "collected");
}

TEST_F(LogFileTest, ForgetsWhatItHasWritten) {
    LogFile log(nullptr);
    log.open(path);
    log << "once" << flush << flush;
    log.flush();
    EXPECT_EQ(content(), "once");
}

TEST_F(LogFileTest, FormatsEachKindOfValue) {
    char text[] = "array";
    char* const pointer = text;
    const char* const constPointer = "const";
    LogFile log(nullptr);
    log.open(path);
    log << -7 << '|' << 0 << '|' << 2147483647 << '|' << text << '|' << pointer << '|'
        << constPointer << '|' << std::string("string") << '|' << std::string_view("view") << '|'
        << 4096U << '|' << 12345678901L << flush;
    EXPECT_EQ(content(), "-7|0|2147483647|array|array|const|string|view|4096|12345678901");
}

TEST_F(LogFileTest, EndsCharacterTextAtItsNul) {
    const char text[] = "before\0after";
    LogFile log(nullptr);
    log.open(path);
    log << text << endl;
    EXPECT_EQ(content(), "before\n");
}

TEST_F(LogFileTest, WritesTheNulBytesOfAString) {
    LogFile log(nullptr);
    log.open(path);
    log << std::string("a\0b", 3) << endl;
    EXPECT_EQ(content(), std::string("a\0b\n", 4));
}

TEST_F(LogFileTest, TakesANullPointerAsNothing) {
    char* const nothing = nullptr;
    const char* const constNothing = nullptr;
    LogFile log(nullptr);
    log.open(path);
    log << "a" << nothing << "b" << constNothing << 3 << std::string("c") << endl;
    EXPECT_EQ(content(), "ab3c\n");
}

TEST_F(LogFileTest, WritesOutThroughMembersAndManipulatorsAlike) {
    LogFile log(nullptr);
    log.open(path);
    EXPECT_EQ(&(log << "1"), &log);
    EXPECT_EQ(&log.endl(), &log);
    log << "2";
    EXPECT_EQ(&log.flush(), &log);
    log << "3";
    EXPECT_EQ(&endl(log), &log);
    log << "4";
    EXPECT_EQ(&flush(log), &log);
    log << "5" << endl << "6" << flush;
    EXPECT_EQ(content(), "1\n23\n45\n6");
}

TEST_F(LogFileTest, DiscardsAtOpenWhatWasInsertedBefore) {
    LogFile log(nullptr);
    log << "early";
    EXPECT_EQ(&log.open(path), &log);
    log << "late" << endl;
    EXPECT_EQ(content(), "late\n");
}

TEST_F(LogFileTest, LosesAtItsEndWhatWasNotWrittenOut) {
    {
        LogFile log(nullptr);
        log.open(path);
        log << "kept" << endl << "lost";
    }
    EXPECT_EQ(content(), "kept\n");
}

TEST_F(LogFileTest, DropsEverythingBeforeItHasAName) {
    LogFile log(nullptr);
    log << "dropped" << endl;
    EXPECT_FALSE(log.openFailed);
    log.open(path);
    log << flush;
    EXPECT_EQ(content(), "");
}

TEST_F(LogFileTest, TouchesNoFileWhenItIsConstructedUnnamed) {
    const LogFile log(nullptr);
    EXPECT_FALSE(log.openFailed);
    EXPECT_TRUE(namesIn(scratch.path()).empty());
}

TEST_F(LogFileTest, CreatesTheFileAtAnEmptyWriteOut) {
    LogFile log(nullptr);
    log.open(path);
    ASSERT_EQ(remove(path.c_str()), 0);
    const mode_t before = umask(0);
    log << flush;
    umask(before);
    EXPECT_TRUE(exists(path));
    EXPECT_EQ(content(), "");
    EXPECT_EQ(permissions(path), 0644U);
}

TEST_F(LogFileTest, LetsTheUmaskFilterTheModeOfAFileThatAWriteOutCreates) {
    LogFile log(nullptr);
    log.open(path);
    ASSERT_EQ(remove(path.c_str()), 0);
    const mode_t before = umask(077);
    log << "x" << endl;
    umask(before);
    EXPECT_EQ(permissions(path), 0600U);
}

TEST_F(LogFileTest, SetsTheExactModeAtOpenWhateverTheUmask) {
    const mode_t before = umask(077);
    LogFile log(nullptr);
    log.open(path);
    umask(before);
    EXPECT_EQ(permissions(path), 0644U);
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    log.open(path);
    EXPECT_EQ(permissions(path), 0644U);
}

TEST_F(LogFileTest, LeavesTheModeOfADeviceAsItIs) {
    // The sandbox has a null device of its own; were it the machine's, nothing must happen to it.
    const mode_t before = permissions("/dev/null");
    LogFile log(nullptr);
    log.open("/dev/null");
    EXPECT_FALSE(log.openFailed);
    log << "nothing keeps this" << endl;
    const LogFile named("/dev/null", nullptr);
    EXPECT_FALSE(named.openFailed);
    EXPECT_EQ(before, 0666U);
    EXPECT_EQ(permissions("/dev/null"), before);
}

TEST_F(LogFileTest, FollowsALinkToTheFileOfWhichItSetsTheMode) {
    writeFile(scratch / "file", "");
    ASSERT_EQ(chmod((scratch / "file").c_str(), 0600), 0);
    ASSERT_EQ(symlink((scratch / "file").c_str(), path.c_str()), 0);
    LogFile log(nullptr);
    log.open(path);
    EXPECT_EQ(permissions(scratch / "file"), 0644U);
}

TEST_F(LogFileTest, ProbesTheFileInTheConstructorThatNamesIt) {
    const mode_t before = umask(077);
    LogFile log(path, nullptr);
    umask(before);
    EXPECT_FALSE(log.openFailed);
    EXPECT_EQ(permissions(path), 0644U);
    log << "named" << endl;
    EXPECT_EQ(content(), "named\n");

    const LogFile failed(scratch / "missing/log", nullptr);
    EXPECT_TRUE(failed.openFailed);
}

TEST_F(LogFileTest, TellsAFailedOpenAndClearsThatAtTheNextGoodOne) {
    LogFile log(nullptr);
    log.open(scratch / "missing/log");
    EXPECT_TRUE(log.openFailed);
    log.open(path);
    EXPECT_FALSE(log.openFailed);
}

TEST_F(LogFileTest, ClearsAFailedOpenAtClose) {
    LogFile log(nullptr);
    log.open(scratch / "missing/log");
    ASSERT_TRUE(log.openFailed);
    log.close();
    EXPECT_FALSE(log.openFailed);
}

TEST_F(LogFileTest, DropsTextThatCannotBeWritten) {
    LogFile log(nullptr);
    const std::string directory = scratch / "later";
    log.open(directory + "/log");
    log << "dropped" << endl;
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    log << "written" << endl;
    EXPECT_EQ(readFile(directory + "/log"), "written\n");
}

TEST_F(LogFileTest, WritesOutAtCloseAndGoesOnAfterwards) {
    LogFile log(nullptr);
    log.open(path);
    log << "before";
    log.close();
    EXPECT_EQ(content(), "before");
    log << "after" << endl;
    EXPECT_EQ(content(), "beforeafter\n");
}

TEST_F(LogFileTest, AppendsAtOncePastTheCollectedText) {
    LogFile log(nullptr);
    log.open(path);
    log << "collected";
    log.log("at once,");
    EXPECT_EQ(content(), "at once,");
    log << flush;
    EXPECT_EQ(content(), "at once,collected");
}

TEST_F(LogFileTest, CreatesTheFileAnewAfterItWasMovedAway) {
    LogFile log(nullptr);
    log.open(path);
    log << "one" << endl;
    ASSERT_EQ(rename(path.c_str(), (path + ".0").c_str()), 0);
    log << "two" << endl;
    EXPECT_EQ(readFile(path + ".0"), "one\n");
    EXPECT_EQ(content(), "two\n");
}

TEST_F(LogFileTest, HoldsNoDescriptorBetweenWriteOuts) {
    const std::vector<int> before = openDescriptors();
    LogFile log(nullptr);
    log.open(path);
    log << "one" << endl << "two" << flush;
    log.log("three");
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LogFileTest, LocksItsMutexForEachWriteOut) {
    Mutex mutex;
    LogFile log(nullptr);
    log.open(path);
    log.setMutex(mutex.get());
    for (const auto& writeOut : std::vector<void (*)(LogFile&)>{
             [](LogFile& file) { file << "x" << endl; }, [](LogFile& file) { file << flush; },
             [](LogFile& file) { file.close(); }, [](LogFile& file) { file.log("x"); }}) {
        pthread_mutex_lock(mutex.get());
        const std::string before = content();
        log << "y";
        std::thread writer([&] { writeOut(log); });
        // It can't have come further than the lock, however long this takes.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(content(), before);
        pthread_mutex_unlock(mutex.get());
        writer.join();
        EXPECT_NE(content(), before);
        EXPECT_TRUE(mutex.isFree());
    }
}

TEST_F(LogFileTest, WritesOutWhileItsThreadHoldsTheProcessWideMutex) {
    LogFile log(Thread::mainMutex);
    log.open(path);
    pthread_mutex_lock(Thread::mainMutex);
    log << "inside" << endl;
    log.tryRotate(1000, 2);
    pthread_mutex_unlock(Thread::mainMutex);
    EXPECT_EQ(content(), "inside\n");
}

TEST_F(LogFileTest, KeepsTheLinesOfTwoThreadsWhole) {
    constexpr int lines = 500;
    const auto write = [this](char letter) {
        LogFile log(Thread::mainMutex);
        log.open(path);
        for (int i = 0; i < lines; ++i) {
            log << std::string(300, letter) << i << endl;
        }
    };
    std::thread first(write, 'a');
    std::thread second(write, 'b');
    first.join();
    second.join();

    int next[2] = {0, 0};
    for (const std::string& line : linesOf(content())) {
        const char letter = line.at(0);
        int& expected = next[letter == 'a' ? 0 : 1];
        ASSERT_EQ(line, std::string(300, letter) + std::to_string(expected));
        ++expected;
    }
    EXPECT_EQ(next[0], lines);
    EXPECT_EQ(next[1], lines);
}

TEST_F(LogFileTest, DoesNotCopyWhatIsCollectedAtEachInsertion) {
    // An idle worker inserts for months before it ends a line.
    constexpr std::size_t insertions = 4000;
    const std::string separator(67, '+');
    LogFile log(nullptr);
    log.open(path);
    const std::size_t before = bytesAllocated();
    for (std::size_t i = 0; i < insertions; ++i) {
        log << separator << "\n";
    }
    const std::size_t allocated = bytesAllocated() - before;
    // Growing by doubling asks for less than four times the text; copying at each insertion would
    // ask for thousands of times as much.
    EXPECT_GT(allocated, insertions * (separator.size() + 1) - 1);
    EXPECT_LT(allocated, 6 * insertions * (separator.size() + 1));
    log << flush;
    EXPECT_EQ(content().size(), insertions * (separator.size() + 1));
}

TEST_F(LogFileTest, GivesTheMemoryOfALongTextBackWhenItIsWrittenOut) {
    const std::string text(100000, 'x');
    LogFile log(nullptr);
    log.open(path);
    for (int i = 0; i < 10; ++i) {
        log << text;
    }
    log << flush;
    EXPECT_EQ(content().size(), 10 * text.size());
    const std::size_t before = bytesAllocated();
    log << text;
    EXPECT_GE(bytesAllocated() - before, text.size());
}

TEST_F(LogFileTest, DoesNotCopyALongTextThatIsLoggedAtOnce) {
    const std::string text(300000, 'x');
    LogFile log(nullptr);
    log.open(path);
    const std::size_t before = bytesAllocated();
    log.log(text);
    EXPECT_LT(bytesAllocated() - before, 1000U);
    EXPECT_EQ(content(), text);
}

TEST_F(LogFileTest, InsertsStringsWithAllTheirBytes) {
    LogFile log(nullptr);
    log.open(path);
    log << "a" << std::string("b") << std::string() << std::string("c\0d", 3) << flush;
    EXPECT_EQ(content(), std::string("abc\0d", 5));
}

TEST_F(LogFileTest, DoesNotCopyWhatIsCollectedWhateverKindOfValueIsInserted) {
    const char* const text = "text";
    LogFile log(nullptr);
    log.open(path);
    log << std::string(300000, 'x');
    const std::size_t before = bytesAllocated();
    for (int i = 0; i < 1000; ++i) {
        log << i << 'c' << text << "literal" << std::string_view("view") << 7U << 7L;
    }
    // One growth may copy the whole; a thousand copies of 300,000 bytes are far more than this.
    EXPECT_LT(bytesAllocated() - before, 20000000U);
}
