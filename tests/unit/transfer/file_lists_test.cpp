// How many copy processes a cycle gets, and the file lists they read.
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/settings_test.h"
#include "transfer/file_lists.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using testing::ElementsAre;

namespace {

class FileLists : public SettingsTest {
protected:
    const std::string path = scratch / "list";
};

/// What stands in the files of the lists, which are removed.
std::vector<std::string> contentsOf(const std::vector<FileList>& lists) {
    std::vector<std::string> contents;
    for (const FileList& list : lists) {
        contents.push_back(readFile(list.name()));
        unlink(list.name().c_str());
    }
    return contents;
}

/// These names as a cycle has them.
NameList listOf(const std::vector<std::string>& names) {
    NameList list;
    for (const std::string& name : names) {
        list.add(name);
    }
    return list;
}

} // namespace

TEST(CopyProcessCount, IsOneForEach101NamesBegun) {
    EXPECT_EQ(copyProcessCount(1, 8), 1);
    EXPECT_EQ(copyProcessCount(100, 4), 1);
    EXPECT_EQ(copyProcessCount(101, 4), 2);
    EXPECT_EQ(copyProcessCount(201, 4), 2);
    EXPECT_EQ(copyProcessCount(202, 4), 3);
    EXPECT_EQ(copyProcessCount(707, 8), 8);
}

TEST(CopyProcessCount, IsAtMostTheSetting) {
    EXPECT_EQ(copyProcessCount(1000, 4), 4);
    EXPECT_EQ(copyProcessCount(1000, 1), 1);
    EXPECT_EQ(copyProcessCount(100000, 8), 8);
    EXPECT_EQ(copyProcessCount(1000, INT_MAX), 10);
}

TEST(CopyProcessCount, TakesASettingOfZeroAsOne) {
    EXPECT_EQ(copyProcessCount(1, 0), 1);
    EXPECT_EQ(copyProcessCount(1000, 0), 1);
}

TEST(CopyProcessCount, TakesANegativeSettingAsNoLimit) {
    EXPECT_EQ(copyProcessCount(10100, -1), 101);
    EXPECT_EQ(copyProcessCount(10100, INT_MIN), 101);
}

TEST(FileListName, HoldsTheProcessTheThreadAndTheIndex) {
    const auto thread = static_cast<int>(static_cast<unsigned int>(pthread_self()));
    EXPECT_EQ(fileListName(0),
              "/tmp/file_list_" + std::to_string(getpid()) + "_" + std::to_string(thread) + "_0");
    EXPECT_EQ(fileListName(12),
              "/tmp/file_list_" + std::to_string(getpid()) + "_" + std::to_string(thread) + "_12");
}

TEST(FileListName, DiffersBetweenThreads) {
    const std::string own = fileListName(0);
    std::string others;
    std::thread other([&others] { others = fileListName(0); });
    other.join();
    EXPECT_NE(own, others);
}

TEST_F(FileLists, HoldANameInEachLine) {
    FileList list(path);
    EXPECT_EQ(list.name(), path);
    list.add("a");
    list.add("dir/b");
    list.close();
    EXPECT_EQ(readFile(path), "a\ndir/b\n");
}

TEST_F(FileLists, AreCreatedEmptyAtOnce) {
    const FileList list(path);
    EXPECT_TRUE(exists(path));
    EXPECT_EQ(readFile(path), "");
}

TEST_F(FileLists, HoldEverythingHoweverMuchItIs) {
    FileList list(path);
    std::string expected;
    for (int i = 0; i < 20000; ++i) {
        const std::string name = "directory/frame_" + std::to_string(i) + ".cbf";
        list.add(name);
        expected += name + "\n";
    }
    list.close();
    EXPECT_EQ(readFile(path), expected);
}

/// What a list holds of these names, and of one more that is added when there is room again, where
/// the file system takes no more than `room` bytes of it.
std::string contentWithRoomFor(rlim_t room, const std::string& path,
                               const std::vector<std::string>& names) {
    const ChildOutcome outcome = runInChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        rlimit before = {};
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit limit = {room, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        FileList list(path);
        for (const std::string& name : names) {
            list.add(name);
        }
        if (names.size() == 1) {
            list.close();
        }
        setrlimit(RLIMIT_FSIZE, &before);
        list.add("later");
        list.close();
        return readFile(path);
    });
    return outcome.result;
}

TEST_F(FileLists, HoldWholeNamesOnlyWhereThereIsNoRoomForAll) {
    // More than is written at once: the file system is found full while names are still added.
    constexpr std::size_t count = 20000;
    std::vector<std::string> names;
    names.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        names.push_back("frame_" + std::to_string(100000 + i));
    }
    const std::string content = contentWithRoomFor(70000, path, names);
    std::string expected;
    for (std::size_t i = 0; expected.size() + names[i].size() < 70000; ++i) {
        expected += names[i] + "\n";
    }
    // Half of the next name would be another name, and so would one glued to it.
    EXPECT_TRUE(content == expected)
        << content.size() << " bytes, ending in \"" << content.substr(content.size() - 30) << '"';
}

TEST_F(FileLists, AreEmptyWhereThereIsNoRoomForTheFirstName) {
    EXPECT_EQ(contentWithRoomFor(5, path, {"frame_1"}), "");
    unlink(path.c_str());
    EXPECT_EQ(contentWithRoomFor(0, path, {"frame_1"}), "");
}

TEST_F(FileLists, CanBeClosedTwice) {
    FileList list(path);
    list.add("a");
    list.close();
    list.close();
    EXPECT_EQ(readFile(path), "a\n");
}

TEST_F(FileLists, CanBeReadByAllAndWrittenByTheDaemonAlone) {
    const mode_t before = umask(0);
    const FileList list(path);
    umask(before);
    EXPECT_EQ(permissions(path), 0644U);
}

TEST_F(FileLists, ReplaceAnOldFileOfTheirName) {
    writeFile(path, "old content that is longer\n");
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    FileList list(path);
    list.add("new");
    list.close();
    EXPECT_EQ(readFile(path), "new\n");
    EXPECT_EQ(permissions(path), 0644U);
}

TEST_F(FileLists, DoNotFollowALinkOfTheirName) {
    const std::string victim = scratch / "victim";
    writeFile(victim, "untouched");
    ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0);
    FileList list(path);
    list.add("new");
    list.close();
    EXPECT_EQ(readFile(victim), "untouched");
    EXPECT_EQ(readFile(path), "new\n");
    EXPECT_EQ(permissions(path), 0644U);
}

TEST_F(FileLists, LoseTheNamesInSilenceWhenTheyCannotBeCreated) {
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    FileList list(path);
    for (int i = 0; i < 20000; ++i) {
        list.add("name" + std::to_string(i));
    }
    list.close();
    EXPECT_TRUE(namesIn(path).empty());
}

TEST_F(FileLists, AreDealtTheNamesInTurn) {
    const std::vector<FileList> lists = dealNames(listOf({"a", "b", "c", "d", "e"}), 3);
    EXPECT_THAT(contentsOf(lists), ElementsAre("a\nd\n", "b\ne\n", "c\n"));
}

TEST_F(FileLists, AreWrittenOutWhenTheNamesAreDealt) {
    const std::vector<int> before = openDescriptors();
    const std::vector<FileList> lists = dealNames(listOf({"a", "b"}), 2);
    EXPECT_EQ(readFile(fileListName(0)), "a\n");
    EXPECT_EQ(readFile(fileListName(1)), "b\n");
    EXPECT_EQ(openDescriptors(), before);
    contentsOf(lists);
}

TEST_F(FileLists, AreNamedByTheirIndex) {
    const std::vector<FileList> lists = dealNames(listOf({"a", "b"}), 2);
    ASSERT_EQ(lists.size(), 2U);
    EXPECT_EQ(lists[0].name(), fileListName(0));
    EXPECT_EQ(lists[1].name(), fileListName(1));
    contentsOf(lists);
}

TEST_F(FileLists, StayEmptyWhenThereAreFewerNames) {
    const std::vector<FileList> lists = dealNames(listOf({"a"}), 2);
    EXPECT_THAT(contentsOf(lists), ElementsAre("a\n", ""));
}

TEST_F(FileLists, AreKeptFromCopyProcesses) {
    const std::vector<int> before = openDescriptors();
    const FileList list(path);
    for (const int descriptor : openDescriptors()) {
        if (std::find(before.begin(), before.end(), descriptor) == before.end()) {
            EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
        }
    }
}
