// What the directory that files arrive in tells about them, and making them durable.
#include "shares/destination.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace confirming {
namespace {

class DestinationTest : public testing::Test {
protected:
    DestinationTest() {
        char name[] = "/tmp/destination_test.XXXXXX";
        outside = ::mkdtemp(name);
        path = outside + "/target";
        std::filesystem::create_directory(path);
    }
    ~DestinationTest() override { std::filesystem::remove_all(outside); }

    void makeFile(const std::string& name) const { std::ofstream(path + "/" + name) << "x"; }

    std::string outside;
    std::string path;
};

TEST_F(DestinationTest, HasFilesOfEveryKindButDirectories) {
    makeFile("a");
    makeFile("n\nl");
    ASSERT_EQ(::link((path + "/a").c_str(), (path + "/hard").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (path + "/dangling").c_str()), 0);
    ASSERT_EQ(::symlink("sub", (path + "/to-folder").c_str()), 0);
    ASSERT_EQ(::mkfifo((path + "/fifo").c_str(), 0600), 0);
    ASSERT_EQ(::mknod((path + "/device").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    ASSERT_EQ(::mknod((path + "/socket").c_str(), S_IFSOCK | 0600, 0), 0);
    ASSERT_EQ(::mkdir((path + "/sub").c_str(), 0700), 0);
    makeFile("sub/b");
    makeFile("unreadable");
    ASSERT_EQ(::chmod((path + "/unreadable").c_str(), 0), 0);
    const Destination destination(path + "/./");
    for (const char* name : {"a", "n\\#012l", "hard", "dangling", "to-folder", "fifo", "device",
                             "socket", "sub/b", "unreadable"}) {
        EXPECT_TRUE(destination.hasFile(name)) << name;
    }
    for (const char* name : {"sub", "missing", "a/b", "a\\#000", "", "."}) {
        EXPECT_FALSE(destination.hasFile(name)) << name;
    }
    EXPECT_EQ(destination.sizeOf("a"), 1U);
    // Of the link, not of what it leads to.
    EXPECT_EQ(destination.sizeOf("to-folder"), 3U);
}

TEST_F(DestinationTest, HasNothingBehindALink) {
    ASSERT_EQ(::mkdir((path + "/sub").c_str(), 0700), 0);
    makeFile("sub/a");
    ASSERT_EQ(::mkdir((outside + "/secret").c_str(), 0700), 0);
    std::ofstream(outside + "/secret/key") << "x";
    ASSERT_EQ(::symlink("sub", (path + "/inside").c_str()), 0);
    ASSERT_EQ(::symlink("../secret", (path + "/d").c_str()), 0);
    ASSERT_EQ(::symlink((outside + "/secret").c_str(), (path + "/sub/e").c_str()), 0);
    const Destination destination(path);
    for (const char* name : {"inside/a", "d/key", "sub/e/key", "d/../target/sub/a"}) {
        ASSERT_TRUE(std::filesystem::exists(path + "/" + name)) << name;
        EXPECT_FALSE(destination.hasFile(name)) << name;
    }
    EXPECT_TRUE(destination.hasFile("sub/a"));
    EXPECT_TRUE(destination.hasFile("d"));
}

TEST_F(DestinationTest, HasNothingAboveIt) {
    std::ofstream(outside + "/other") << "x";
    makeFile("a");
    const Destination destination(path);
    for (const std::string& name : {std::string("../other"), std::string("a/../../other"),
                                    std::string(".."), outside + "/other", path + "/a"}) {
        EXPECT_FALSE(destination.hasFile(name)) << name;
    }
}

TEST_F(DestinationTest, MayBeALinkItself) {
    // The operator's own.
    makeFile("a");
    ASSERT_EQ(::symlink("target", (outside + "/link").c_str()), 0);
    EXPECT_TRUE(Destination(outside + "/link").hasFile("a"));
}

TEST_F(DestinationTest, TellsNothingWhileSomethingElseStandsInItsPlace) {
    makeFile("a");
    ASSERT_EQ(::symlink("loop", (outside + "/loop").c_str()), 0);
    EXPECT_EQ(Destination(path + "/a").presence("b"), Destination::Presence::unknown);
    EXPECT_EQ(Destination(outside + "/loop").presence("b"), Destination::Presence::unknown);
    EXPECT_EQ(Destination(outside + "/missing").presence("b"), Destination::Presence::absent);
}

TEST_F(DestinationTest, TellsOfNoAbsenceOnceAnotherDirectoryStandsInItsPlace) {
    makeFile("a");
    const Destination destination(path);
    EXPECT_EQ(destination.presence("b"), Destination::Presence::absent);
    std::filesystem::rename(path, outside + "/away");
    EXPECT_EQ(destination.presence("b"), Destination::Presence::unknown);
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(destination.presence("b"), Destination::Presence::unknown);
    // What comes there is in place.
    makeFile("b");
    EXPECT_EQ(destination.presence("b"), Destination::Presence::there);
    EXPECT_TRUE(destination.hasFile("b"));
}

TEST_F(DestinationTest, MayBeMissing) {
    for (const char* name : {"/missing", "/target/a"}) {
        makeFile("a");
        const Destination destination(outside + name);
        EXPECT_FALSE(destination.hasFile("a"));
        EXPECT_TRUE(destination.canBeDurable());
        EXPECT_TRUE(destination.keepsFractions());
        EXPECT_NE(destination.makeDurable({"a"}), "");
    }
}

TEST_F(DestinationTest, IsNotDurableInMemory) {
    for (const char* type : {"tmpfs", "ramfs"}) {
        ASSERT_EQ(::mount("none", path.c_str(), type, 0, nullptr), 0);
        {
            const Destination destination(path);
            EXPECT_FALSE(destination.canBeDurable()) << type;
            EXPECT_TRUE(destination.keepsFractions()) << type;
        }
        ASSERT_EQ(::umount(path.c_str()), 0);
    }
    EXPECT_TRUE(Destination("/proc").canBeDurable());
}

TEST_F(DestinationTest, TellsWhatIsFromBeforeTheStartOfTheMachine) {
    using Inode = std::optional<std::uint64_t>;
    const auto inode = [](const std::string& place) {
        struct stat status {};
        return ::stat(place.c_str(), &status) == 0 ? Inode(status.st_ino) : Inode();
    };
    const std::int64_t now = ::time(nullptr);
    makeFile("a");
    makeFile("n\nl");
    std::filesystem::create_directory(path + "/sub");
    makeFile("sub/b");
    ASSERT_EQ(::symlink("a", (path + "/link").c_str()), 0);
    ASSERT_EQ(::mkfifo((path + "/fifo").c_str(), 0600), 0);
    const Destination destination(path);
    EXPECT_EQ(destination.oldInode("a", now - 10), Inode());
    for (const std::optional<std::int64_t> boot : {std::optional(now + 10), {}}) {
        EXPECT_EQ(destination.oldInode("a", boot), inode(path + "/a"));
        EXPECT_EQ(destination.oldInode("sub/b", boot), inode(path + "/sub/b"));
        EXPECT_EQ(destination.oldInode("n\\#012l", boot), inode(path + "/n\nl"));
        for (const char* name : {"link", "fifo", "sub", "missing", "a/below", "link/below"}) {
            EXPECT_EQ(destination.oldInode(name, boot), Inode()) << name;
        }
    }
    // Where another directory stands by now, rsync will compare with what is in that.
    std::filesystem::rename(path, path + ".away");
    std::filesystem::create_directory(path);
    EXPECT_EQ(destination.oldInode("a", now + 10), Inode());
    makeFile("a");
    EXPECT_EQ(destination.oldInode("a", now + 10), inode(path + "/a"));
}

/// A file system on a disk that is a file.
class OnADisk : public DestinationTest {
protected:
    /// Where that can't be had, the program ends as one that could not be run, which counts as
    /// skipped.
    void mountDisk(const std::string& makeFileSystem) {
        image = outside + "/disk";
        std::ofstream(image).close();
        std::filesystem::resize_file(image, 16 << 20);
        mounted = std::system((makeFileSystem + " " + image +
                               " >/dev/null 2>&1 && mount -n -o loop " + image + " " + path)
                                  .c_str()) == 0;
        if (!mounted) {
            std::puts("skipped: no ext4 on a loop device here");
            std::exit(77);
        }
    }
    ~OnADisk() override {
        if (mounted) {
            EXPECT_EQ(::umount(path.c_str()), 0);
        }
    }

    std::string image;
    bool mounted = false;
};

TEST_F(OnADisk, MakesFilesDurable) {
    mountDisk("mkfs.ext4 -q -I 256");
    const Destination destination(path);
    EXPECT_TRUE(destination.canBeDurable());
    EXPECT_TRUE(destination.keepsFractions());
    makeFile("a");
    std::filesystem::create_directory(path + "/sub");
    makeFile("sub/b");
    const auto before = std::filesystem::last_write_time(path + "/a");
    EXPECT_EQ(destination.makeDurable({"a", "sub/b", "missing"}), "");
    EXPECT_EQ(std::filesystem::last_write_time(path + "/a"), before);
}

TEST_F(OnADisk, CannotSayThatOfAFileSystemThatTakesNothingMore) {
    mountDisk("mkfs.ext4 -q -I 256");
    makeFile("a");
    const Destination destination(path);
    ASSERT_EQ(std::system(("mount -n -o remount,ro " + path).c_str()), 0);
    EXPECT_EQ(destination.makeDurable({"a"}), "Read-only file system");
}

TEST_F(OnADisk, TellsByTheLastChangeWhereNoBirthIsKept) {
    mountDisk("mkfs.ext4 -q -I 128");
    makeFile("a");
    const std::int64_t now = ::time(nullptr);
    const Destination destination(path);
    EXPECT_FALSE(destination.oldInode("a", now - 10));
    EXPECT_TRUE(destination.oldInode("a", now + 10));
}

TEST_F(OnADisk, HasWhatIsMountedInItMadeDurableToo) {
    mountDisk("mkfs.ext4 -q -I 256");
    std::filesystem::create_directory(path + "/other");
    ASSERT_EQ(::mount("none", (path + "/other").c_str(), "tmpfs", 0, nullptr), 0);
    makeFile("other/a");
    makeFile("b");
    EXPECT_TRUE(Destination(path).hasFile("other/a"));
    EXPECT_EQ(Destination(path).makeDurable({"other/a", "b"}), "");
    ASSERT_EQ(::umount((path + "/other").c_str()), 0);
}

TEST_F(OnADisk, MayKeepWholeSecondsOnly) {
    mountDisk("mkfs.ext4 -q -I 128");
    EXPECT_FALSE(Destination(path).keepsFractions());
    EXPECT_TRUE(std::filesystem::exists(path + "/lost+found"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path), {}), 1) << "a file was left";
}

} // namespace
} // namespace confirming
