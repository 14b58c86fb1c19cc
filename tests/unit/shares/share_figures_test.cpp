// What is told of a share's listings and copies while they run, when they have died, and when
// something else lies in the place of their figures.
#include "shares/process_identity.h"
#include "shares/share_figures.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace confirming {
namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* share = "rsync://root@10.0.0.1:49371/ramdisk/";
constexpr const char* destination = "/images/run 7";

/// Runs `work` in a child and ends that.
pid_t startChild(const std::function<void()>& work) {
    const pid_t child = ::fork();
    if (child == 0) {
        work();
        ::_exit(0);
    }
    return child;
}

/// True if the child ended by itself, with status 0.
bool endedWell(pid_t child) {
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class ShareFiguresTest : public testing::Test {
protected:
    ShareFiguresTest() {
        char name[] = "/tmp/share_figures_test.XXXXXX";
        root = ::mkdtemp(name);
        base = root + "/skarn";
        folder = base + "/shares/rsync:%2F%2Froot@10.0.0.1:49371%2Framdisk%2F";
        listingPath = folder + "/listing";
        copiesPath = folder + "/to-%2Fimages%2Frun%207";
    }
    ~ShareFiguresTest() override { fs::remove_all(root); }

    ShareFigures listings() const { return readShareFigures(listingPath).value(); }
    ShareFigures copies() const { return readShareFigures(copiesPath).value(); }

    /// Puts something else in the place of the copies' segment, and looks whether a copy that
    /// begins then is counted from one.
    void expectReplaced(const std::function<void()>& putInPlace) {
        putInPlace();
        EXPECT_FALSE(readShareFigures(copiesPath));
        CopyFigures copy(base, share, destination);
        copy.confirmed("a", 1);
        ASSERT_TRUE(fs::is_regular_file(fs::symlink_status(copiesPath)));
        EXPECT_EQ(copies().counts[ShareFigures::confirmedFiles], 1U);
    }

    std::string root;
    std::string base;
    std::string folder;
    std::string listingPath;
    std::string copiesPath;
};

TEST_F(ShareFiguresTest, ListingIsToldFromItsBeginToItsEnd) {
    const std::uint64_t before = nanosecondsSinceBoot();
    ListingFigures listing(base, share);
    EXPECT_EQ(listings().last.at.boottime, 0U);
    EXPECT_THAT(listings().unended, IsEmpty());

    listing.begin();
    const ShareFigures at = listings();
    EXPECT_EQ(at.share, share);
    EXPECT_EQ(at.destination, "");
    EXPECT_EQ(at.boot, identityOf(::getpid())->boot);
    EXPECT_EQ(at.counts[ShareFigures::begun], 1U);
    EXPECT_EQ(at.last.at.boottime, 0U);
    ASSERT_THAT(at.unended, SizeIs(1));
    EXPECT_EQ(at.unended[0].pid, ::getpid());
    EXPECT_TRUE(at.unended[0].alive);
    EXPECT_GE(at.unended[0].begun.boottime, at.since.boottime);
    EXPECT_GE(at.since.boottime, before);
    EXPECT_NEAR(static_cast<double>(at.since.realtime) / 1e9,
                static_cast<double>(std::time(nullptr)), 5);

    listing.end(0, 4711, "");
    const ShareFigures after = listings();
    EXPECT_THAT(after.unended, IsEmpty());
    EXPECT_GE(after.last.at.boottime, at.unended[0].begun.boottime);
    EXPECT_EQ(after.last.status, 0);
    EXPECT_EQ(after.last.entries, 4711U);
    EXPECT_EQ(after.last.failuresInARow, 0U);
    EXPECT_EQ(after.last.failingSince.boottime, 0U);
    EXPECT_EQ(after.lastText, "");
}

TEST_F(ShareFiguresTest, ListingsThatFailAreToldSinceTheFirstInARow) {
    std::uint64_t since = 0;
    for (unsigned count = 1; count <= 70; ++count) { // more than there are slots
        ListingFigures listing(base, share);
        listing.begin();
        listing.end(10, 0, "rsync: connection refused");
        const ShareFigures at = listings();
        since = count == 1 ? at.last.at.boottime : since;
        ASSERT_EQ(at.last.failuresInARow, count);
        ASSERT_EQ(at.last.failingSince.boottime, since);
        ASSERT_EQ(at.last.status, 10);
        ASSERT_EQ(at.lastText, "rsync: connection refused");
        ASSERT_EQ(at.counts[ShareFigures::begun], count);
    }
    ListingFigures listing(base, share);
    listing.begin();
    EXPECT_EQ(listings().last.failuresInARow, 70U) << "one that has begun changes nothing of that";
    listing.end(0, 1, "");
    EXPECT_EQ(listings().last.failuresInARow, 0U);
    EXPECT_EQ(listings().last.failingSince.realtime, 0U);
    listing.begin();
    listing.end(-1, 0, std::string(1000, 'x'));
    EXPECT_EQ(listings().last.status, -1);
    EXPECT_EQ(listings().last.failuresInARow, 1U);
    EXPECT_EQ(listings().last.failingSince.boottime, listings().last.at.boottime);
    EXPECT_EQ(listings().lastText, std::string(280, 'x'));
}

TEST_F(ShareFiguresTest, ListingThatHangsIsToldFromOneThatDied) {
    {
        ListingFigures earlier(base, share);
        earlier.begin();
        earlier.end(0, 12, "");
    }
    const pid_t child = startChild([&] {
        ListingFigures listing(base, share);
        listing.begin();
        ::pause();
    });
    while (listings().unended.empty() || listings().unended[0].begun.boottime == 0) {
        ::usleep(1000);
    }
    EXPECT_EQ(listings().unended[0].pid, child);
    EXPECT_TRUE(listings().unended[0].alive);
    ::kill(child, SIGKILL);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    const ShareFigures after = listings();
    ASSERT_THAT(after.unended, SizeIs(1));
    EXPECT_FALSE(after.unended[0].alive);
    EXPECT_GT(after.unended[0].begun.boottime, after.last.at.boottime);
    EXPECT_EQ(after.last.entries, 12U);
}

TEST_F(ShareFiguresTest, CopyIsCountedAndItsLastNameTold) {
    {
        CopyFigures copy(base, share, destination);
        ASSERT_THAT(copies().unended, SizeIs(1));
        EXPECT_EQ(copies().last.at.boottime, 0U);
        copy.confirmed("run1/frame_1.tif", 1000);
        copy.confirmed("b", 24);
        EXPECT_EQ(copies().lastText, "b");
        EXPECT_GE(copies().last.at.boottime, copies().unended[0].begun.boottime);
        copy.recovered("run1/frame_0.tif", 7);
        copy.leftUnconfirmed(3);
        copy.flushed(std::chrono::milliseconds(2), false);
        copy.flushed(std::chrono::milliseconds(3), true);
    }
    const ShareFigures at = copies();
    EXPECT_EQ(at.share, share);
    EXPECT_EQ(at.destination, destination);
    EXPECT_THAT(at.unended, IsEmpty());
    EXPECT_EQ(at.lastText, "run1/frame_0.tif");
    EXPECT_THAT(std::vector<std::uint64_t>(at.counts.begin(), at.counts.begin() + 9),
                testing::ElementsAre(1, 2, 1024, 1, 7, 3, 2, 1, 5'000'000));
}

TEST_F(ShareFiguresTest, LastNameOutlivesCopiesThatAnnounceNothing) {
    CopyFigures(base, share, destination).confirmed("the last", 1);
    for (int count = 0; count < 70; ++count) {
        const CopyFigures nothing(base, share, destination);
    }
    EXPECT_EQ(copies().lastText, "the last");
    EXPECT_EQ(copies().counts[ShareFigures::begun], 71U);
}

TEST_F(ShareFiguresTest, NameIsToldAsLongAsThereIsRoom) {
    CopyFigures copy(base, share, destination);
    for (const std::size_t size : {0U, 1U, 7U, 8U, 9U, 279U, 280U, 281U, 4000U, 3U}) {
        const std::string name(size, 'n');
        copy.confirmed(name, 0);
        EXPECT_EQ(copies().lastText, name.substr(0, 280)) << size;
    }
}

TEST_F(ShareFiguresTest, MoreCopiesThanSlotsAreCountedAllTheSame) {
    std::vector<std::unique_ptr<CopyFigures>> all;
    for (int count = 0; count < 40; ++count) {
        all.push_back(std::make_unique<CopyFigures>(base, share, destination));
        all.back()->confirmed("a", 2);
    }
    EXPECT_THAT(copies().unended, SizeIs(32));
    EXPECT_EQ(copies().counts[ShareFigures::begun], 40U);
    EXPECT_EQ(copies().counts[ShareFigures::confirmedBytes], 80U);
    all.clear();
    EXPECT_THAT(copies().unended, IsEmpty());
}

TEST_F(ShareFiguresTest, AllSegmentsAreListed) {
    ListingFigures(base, share).begin();
    const CopyFigures first(base, share, destination);
    const CopyFigures second(base, share, "..");
    const CopyFigures other(base, ".", "/images");
    std::ofstream(folder + "/to-foreign") << "x";
    std::ofstream(base + "/shares/file") << "x";
    fs::copy_file(copiesPath, folder + "/other");
    fs::copy_file(copiesPath, folder + "/to-%zz");
    std::vector<std::pair<std::string, std::string>> found;
    for (const ShareFigures& figures : readAllShareFigures(base)) {
        found.emplace_back(figures.share, figures.destination);
    }
    EXPECT_THAT(found, testing::ElementsAre(testing::Pair(".", "/images"), testing::Pair(share, ""),
                                            testing::Pair(share, ".."),
                                            testing::Pair(share, destination)));
    EXPECT_THAT(readAllShareFigures(root + "/missing"), IsEmpty());
}

TEST_F(ShareFiguresTest, EveryoneMayReadAndOnlyTheUserWrite) {
    const mode_t before = ::umask(077);
    const CopyFigures copy(base, share, destination);
    ::umask(before);
    struct stat status {};
    for (const std::string& path : {base, base + "/shares", folder}) {
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0755U) << path;
    }
    ASSERT_EQ(::stat(copiesPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
    EXPECT_EQ(status.st_size, 12544);
    EXPECT_GE(status.st_blocks * 512, status.st_size) << "room is not kept for it";
}

TEST_F(ShareFiguresTest, NothingIsWrittenWhereNoSegmentCanBe) {
    const std::string longName(201, 'x');
    const auto use = [](const std::string& where, const std::string& from, const std::string& to) {
        ListingFigures listing(where, from);
        listing.begin();
        listing.end(1, 2, "complaint");
        EXPECT_EQ(listing.figures().last.entries, 2U);
        CopyFigures copy(where, from, to);
        copy.confirmed("a", 1);
        copy.recovered("b", 1);
        copy.leftUnconfirmed(1);
        copy.flushed(std::chrono::seconds(1), true);
        EXPECT_EQ(copy.figures().lastText, "b");
    };
    use("", share, destination);
    use(base, "", destination);
    use(base, longName, destination);
    use(root + "/missing/parent", share, destination);
    std::ofstream(root + "/file") << "x";
    use(root + "/file", share, destination);
    EXPECT_THAT(readAllShareFigures(base), IsEmpty());
    { const CopyFigures copy(base, share, longName); }
    { const CopyFigures copy(base, share, ""); }
    EXPECT_THAT(readAllShareFigures(base), IsEmpty());
    { const CopyFigures copy(base, longName.substr(1), longName.substr(1)); }
    EXPECT_THAT(readAllShareFigures(base), SizeIs(1));
}

TEST_F(ShareFiguresTest, FoldersOfOthersOrBehindLinksAreNotUsed) {
    ASSERT_EQ(::mkdir((root + "/elsewhere").c_str(), 0755), 0);
    ASSERT_EQ(::symlink((root + "/elsewhere").c_str(), base.c_str()), 0);
    { const CopyFigures copy(base, share, destination); }
    EXPECT_TRUE(fs::is_empty(root + "/elsewhere"));
    ASSERT_EQ(::unlink(base.c_str()), 0);
    ASSERT_EQ(::mkdir(base.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(base.c_str(), 0775), 0);
    { const CopyFigures copy(base, share, destination); }
    EXPECT_TRUE(fs::is_empty(base));
    ASSERT_EQ(::chmod(base.c_str(), 0755), 0);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(base.c_str(), 65534, 0), 0);
        { const CopyFigures copy(base, share, destination); }
        EXPECT_TRUE(fs::is_empty(base));
    }
}

TEST_F(ShareFiguresTest, WhatElseHasTheNameIsReplaced) {
    { const CopyFigures copy(base, share, destination); }
    const std::string good = contents(copiesPath);
    const auto write = [&](const std::string& text) {
        fs::remove(copiesPath);
        std::ofstream(copiesPath, std::ios::binary) << text;
    };
    const auto changed = [&](std::size_t at) {
        std::string text = good;
        text[at] = static_cast<char>(text[at] + 1);
        return text;
    };
    for (const std::size_t at : {0U, 7U, 8U, 16U, 24U}) { // the mark, the version, kind and size
        expectReplaced([&] { write(changed(at)); });
    }
    expectReplaced([&] { write(""); });
    expectReplaced([&] { write(good.substr(0, good.size() - 1)); });
    expectReplaced([&] { write(good + "x"); });
    expectReplaced([&] { write(std::string(good.size(), '\0')); });
    expectReplaced([&] { fs::remove(copiesPath), ::mkfifo(copiesPath.c_str(), 0644); });
    const std::string secret = root + "/secret";
    std::ofstream(secret, std::ios::binary) << good;
    expectReplaced([&] { fs::remove(copiesPath), fs::create_symlink(secret, copiesPath); });
    EXPECT_EQ(contents(secret), good);
    expectReplaced([&] { fs::remove(copiesPath), fs::create_symlink("nowhere", copiesPath); });
}

TEST_F(ShareFiguresTest, FiguresOfAnotherBootOrUserAreReplaced) {
    const auto makeForeign = [&](const std::function<void()>& change) {
        fs::remove_all(base);
        CopyFigures(base, share, destination).confirmed("before", 1);
        change();
        CopyFigures(base, share, destination).confirmed("after", 1);
        EXPECT_EQ(copies().counts[ShareFigures::confirmedFiles], 1U);
        EXPECT_EQ(copies().lastText, "after");
    };
    makeForeign([&] {
        std::fstream(copiesPath, std::ios::in | std::ios::out | std::ios::binary)
            .seekp(48)
            .write("x", 1);
        EXPECT_EQ(copies().lastText, "before") << "who only reads, reads it all the same";
        EXPECT_EQ(copies().boot.at(0), 'x');
    });
    makeForeign([&] { ASSERT_EQ(::chmod(copiesPath.c_str(), 0666), 0); });
    if (::geteuid() == 0) {
        makeForeign([&] { ASSERT_EQ(::chown(copiesPath.c_str(), 65534, 0), 0); });
    }
}

TEST_F(ShareFiguresTest, FolderInThePlaceOfASegmentIsLeftAlone) {
    fs::create_directories(copiesPath);
    CopyFigures(base, share, destination).confirmed("a", 1);
    EXPECT_TRUE(fs::is_directory(copiesPath));
    EXPECT_FALSE(readShareFigures(copiesPath));
}

TEST_F(ShareFiguresTest, LockOfAnotherHoldsNobodyUp) {
    fs::create_directories(folder);
    std::ofstream(copiesPath) << "x";
    const int lock = ::open(folder.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0);
    CopyFigures(base, share, destination).confirmed("a", 1);
    EXPECT_EQ(contents(copiesPath), "x");
    ::close(lock);
}

TEST_F(ShareFiguresTest, FileSystemThatIsFullHarmsNobody) {
    ASSERT_EQ(::mkdir(base.c_str(), 0755), 0);
    ASSERT_EQ(::mount("none", base.c_str(), "tmpfs", 0, "size=64k,mode=755"), 0);
    for (int count = 0; count < 20; ++count) {
        CopyFigures copy(base, share, "/" + std::to_string(count));
        copy.confirmed("a", 1);
    }
    EXPECT_THAT(readAllShareFigures(base),
                SizeIs(testing::AllOf(testing::Ge(1U), testing::Le(5U))));
    ASSERT_EQ(::umount2(base.c_str(), MNT_DETACH), 0);
}

TEST_F(ShareFiguresTest, AnyDamageIsReadWithoutHarm) {
    CopyFigures(base, share, destination).confirmed("a", 1);
    const std::string good = contents(copiesPath);
    for (std::size_t at = 32; at < 640; at += 8) {
        for (const char byte : {'\1', '\xfe', '\xff'}) {
            std::string text = good;
            text.replace(at, 8, 8, byte);
            std::ofstream(copiesPath, std::ios::binary) << text;
            EXPECT_LE(copies().lastText.size(), 280U);
            EXPECT_LE(copies().boot.size(), 80U);
        }
    }
}

TEST_F(ShareFiguresTest, EightThatBeginAtOnceHaveOneSegmentAndExactSums) {
    constexpr int processes = 8;
    constexpr unsigned names = 2000;
    for (int round = 0; round < 30; ++round) {
        fs::remove_all(base);
        if (round % 3 == 1) { // the segment is to be replaced by one of them
            fs::create_directories(folder);
            std::ofstream(copiesPath) << "something else";
        }
        int gate[2];
        ASSERT_EQ(::pipe2(gate, O_CLOEXEC), 0);
        std::vector<pid_t> children;
        children.reserve(processes);
        for (int number = 0; number < processes; ++number) {
            children.push_back(startChild([&] {
                char byte = 0;
                ::close(gate[1]);
                static_cast<void>(::read(gate[0], &byte, 1));
                CopyFigures copy(base, share, destination);
                for (unsigned count = 0; count < names; ++count) {
                    copy.confirmed("name " + std::to_string(count), 3);
                }
                copy.leftUnconfirmed(5);
            }));
        }
        ::close(gate[0]);
        ::close(gate[1]);
        for (const pid_t child : children) {
            EXPECT_TRUE(endedWell(child));
        }
        const ShareFigures at = copies();
        ASSERT_EQ(at.counts[ShareFigures::begun], 8U) << round;
        ASSERT_EQ(at.counts[ShareFigures::confirmedFiles], 8U * names) << round;
        ASSERT_EQ(at.counts[ShareFigures::confirmedBytes], 24U * names) << round;
        ASSERT_EQ(at.counts[ShareFigures::unconfirmedFiles], 40U) << round;
        ASSERT_EQ(at.lastText, "name 1999");
        ASSERT_THAT(at.unended, IsEmpty());
    }
}

/// Names of all lengths that a segment takes, each of one letter that tells its length.
std::string patterned(std::size_t number) {
    const std::size_t size = number % 281;
    return std::string(size, static_cast<char>('a' + size % 26));
}

TEST_F(ShareFiguresTest, WritersThatAreKilledAnywhereLeaveWholeRecords) {
    constexpr int kills = 300;
    unsigned torn = 0;
    std::uint64_t before = 0;
    for (int kill = 0; kill < kills; ++kill) {
        const pid_t child = startChild([&] {
            CopyFigures copy(base, share, destination);
            for (unsigned number = 0;; ++number) {
                copy.confirmed(patterned(number), 2);
            }
        });
        const std::uint64_t end =
            nanosecondsSinceBoot() + 2'000'000U + std::uint64_t{7'919} * unsigned(kill);
        while (nanosecondsSinceBoot() < end || !fs::exists(copiesPath) ||
               copies().counts[ShareFigures::confirmedFiles] == before) {
            ::usleep(100);
        }
        ::kill(child, SIGKILL);
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
        const ShareFigures at = copies();
        ASSERT_EQ(at.lastText, patterned(at.lastText.size()));
        ASSERT_EQ(at.counts[ShareFigures::begun], unsigned(kill) + 1);
        const std::uint64_t files = at.counts[ShareFigures::confirmedFiles];
        const std::uint64_t bytes = at.counts[ShareFigures::confirmedBytes];
        ASSERT_GT(files, before);
        ASSERT_LE(2 * files - bytes, 2U * (unsigned(kill) + 1)) << "one for each that was killed";
        before = files;
        ASSERT_LE(at.unended.size(), 32U);
        for (const ShareFigures::Unended& process : at.unended) {
            ASSERT_FALSE(process.alive);
            torn += process.begun.boottime == 0 ? 1 : 0;
        }
    }
    RecordProperty("torn", std::to_string(torn));
    EXPECT_GT(torn, 0U) << "no kill met a record that was being written";
    CopyFigures(base, share, destination).confirmed("the last", 1);
    EXPECT_EQ(copies().lastText, "the last");
}

TEST_F(ShareFiguresTest, ReaderBesideAWriterReadsWholeRecords) {
    CopyFigures copy(base, share, destination);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (unsigned number = 0; !stop; ++number) {
            copy.confirmed(patterned(number), 1);
            // Some hundred thousand a second: more leave no reader a moment to read one whole.
            const std::uint64_t next = nanosecondsSinceBoot() + std::uint64_t{1000} * (number % 8);
            while (nanosecondsSinceBoot() < next) {
            }
        }
    });
    unsigned different = 0;
    std::uint64_t last = 0;
    const std::uint64_t deadline = nanosecondsSinceBoot() + 60'000'000'000U;
    // As many as it takes: on one processor, nothing changes between most looks.
    for (int look = 0; different < 100 && nanosecondsSinceBoot() < deadline; ++look) {
        // By the writer's own memory, where a checker of threads sees both, and by the file.
        const ShareFigures at = look % 2 == 0 ? copy.figures() : copies();
        EXPECT_EQ(at.lastText, patterned(at.lastText.size()));
        if (at.last.at.boottime != 0) {
            EXPECT_GE(at.last.at.boottime, last);
            different += at.last.at.boottime > last ? 1 : 0;
            last = at.last.at.boottime;
        }
    }
    stop = true;
    writer.join();
    EXPECT_EQ(different, 100U);
}

} // namespace
} // namespace confirming
