// The names that stock rsync is told to copy, as rsync will print them.
#include "confirming_rsync/file_list.h"
#include "confirming_rsync/left_names.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {
namespace {

using namespace std::string_literals;
using Strings = std::vector<std::string>;

TEST(FileList, HoldsANameALine) {
    EXPECT_EQ(listedNames("a\nsub/b c\n\n#x\n;y\r\n-z\nlast", false).names,
              (Strings{"a", "sub/b c", "#x", ";y", "-z", "last"}));
    EXPECT_EQ(listedNames("", false).names, Strings{});
    EXPECT_EQ(listedNames("\n\n", false).names, Strings{});
    EXPECT_EQ(listedNames("a\n\n\n", false).others, Strings{});
}

TEST(FileList, MayEndItsNamesWithNul) {
    EXPECT_EQ(listedNames("a\0n\nl\0\0b"s, true).names, (Strings{"a", "n\\#012l", "b"}));
}

TEST(FileList, NamesAreRelative) {
    EXPECT_EQ(listedNames("/a\n./b\n.//./c\n.x\n..x\nx..\n...\n", false).names,
              (Strings{"a", "b", "c", ".x", "..x", "x..", "..."}));
}

TEST(FileList, NamesThatAreNoFileBelowTheSourceStandApart) {
    const ListedNames listed =
        listedNames("d/\na\n..\n../a\na/..\na/../../x\n.\n./\n/\nd/.\na/./b\na//b\nd/ \n", false);
    EXPECT_EQ(listed.names, (Strings{"a", "d/ "}));
    EXPECT_EQ(listed.others, (Strings{"d/", "..", "../a", "a/..", "a/../../x", ".", "./", "/",
                                      "d/.", "a/./b", "a//b"}));
}

TEST(FileList, NamesAreAsRsyncPrintsThem) {
    EXPECT_EQ(listedNames("t\tab\x01\n\\#012\n\xe4\n", false).names,
              (Strings{"t\tab\\#001", "\\#134#012", "\xe4"}));
}

class FileListOnDisk : public testing::Test {
protected:
    FileListOnDisk() {
        char name[] = "/tmp/file_list_test.XXXXXX";
        directory = ::mkdtemp(name);
        path = directory + "/list";
    }
    ~FileListOnDisk() override { std::filesystem::remove_all(directory); }

    std::string directory;
    std::string path;
};

TEST(FileList, MayHoldTheReminder) {
    const std::string line(reminderLine());
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    // What the daemon makes of it: the fifth word.
    const std::string entry = line.substr(line.rfind(' ') + 1);
    for (const std::string& text : {entry, "a\n" + entry + "b\n"}) {
        const ListedNames listed = listedNames(text, false);
        EXPECT_TRUE(listed.hasReminder) << text;
        EXPECT_EQ(listed.others, Strings{});
        EXPECT_EQ(listed.names, text == entry ? Strings{} : (Strings{"a", "b"}));
    }
    EXPECT_FALSE(listedNames(entry.substr(1), false).hasReminder);
    EXPECT_FALSE(listedNames("." + entry, false).hasReminder);
    EXPECT_FALSE(listedNames("", false).hasReminder);
}

TEST_F(FileListOnDisk, IsReadWhole) {
    const std::string text(300000, 'x');
    std::ofstream(path) << text << '\n';
    const FileList list = readFileList(path);
    EXPECT_EQ(list.text, text + "\n");
    EXPECT_EQ(list.failure, "");
    EXPECT_EQ(list.identity.path, path);
}

TEST_F(FileListOnDisk, MayBeEmpty) {
    std::ofstream(path).close();
    EXPECT_EQ(readFileList(path).text, "");
    EXPECT_EQ(readFileList(path).failure, "");
}

TEST_F(FileListOnDisk, IsNotUsedIfItCanNotBeHad) {
    EXPECT_EQ(readFileList(path).failure, "No such file or directory");
    EXPECT_EQ(readFileList("").failure, "No such file or directory");
    EXPECT_EQ(readFileList("/proc/self/mem").failure, "Input/output error");
}

TEST_F(FileListOnDisk, IsNotUsedIfOthersMayHaveWrittenIt) {
    const std::string foreign = "others than its user may have written it";
    EXPECT_EQ(readFileList(directory).failure, foreign);
    std::ofstream(path) << "a\n";
    EXPECT_EQ(readFileList(path).failure, "");
    for (const mode_t mode : {0622U, 0606U, 0660U, 0777U}) {
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        EXPECT_EQ(readFileList(path).failure, foreign) << mode;
        EXPECT_EQ(readFileList(path).text, "");
    }
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    EXPECT_EQ(readFileList(path).failure, "");
    ASSERT_EQ(::chown(path.c_str(), 1, 1), 0);
    EXPECT_EQ(readFileList(path).failure, foreign);
}

TEST_F(FileListOnDisk, IsNotUsedThroughALinkOfEitherKind) {
    const std::string other = directory + "/other";
    std::ofstream(other) << "a\n";
    ASSERT_EQ(::link(other.c_str(), path.c_str()), 0);
    EXPECT_EQ(readFileList(path).failure, "others than its user may have written it");
    EXPECT_EQ(readFileList(path).text, "");
    ASSERT_EQ(::unlink(path.c_str()), 0);
    ASSERT_EQ(::symlink(other.c_str(), path.c_str()), 0);
    EXPECT_EQ(readFileList(path).failure, "it is a link");
    EXPECT_EQ(readFileList(path).text, "");
    ASSERT_EQ(::unlink(other.c_str()), 0);
    EXPECT_EQ(readFileList(path).failure, "it is a link");
}

TEST_F(FileListOnDisk, IsNotReadFromAPipe) {
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const int both = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::write(both, "a\n", 2), 2);
    EXPECT_EQ(readFileList(path).text, "");
    EXPECT_EQ(readFileList(path).failure, "others than its user may have written it");
    char left[3] = {};
    EXPECT_EQ(::read(both, left, sizeof left), 2);
    ::close(both);
}

TEST_F(FileListOnDisk, IsTheSameUntilItIsWrittenToOrReplaced) {
    std::ofstream(path) << "a\n";
    const FileIdentity list = readFileList(path).identity;
    EXPECT_TRUE(isStillThere(list));
    FileIdentity other = list;
    ++other.modified;
    EXPECT_FALSE(isStillThere(other));
    const std::string aside = directory + "/aside";
    ASSERT_EQ(::rename(path.c_str(), aside.c_str()), 0);
    EXPECT_FALSE(isStillThere(list));
    std::ofstream(path) << "a\n";
    EXPECT_FALSE(isStillThere(list));
    ASSERT_EQ(::rename(aside.c_str(), path.c_str()), 0);
    EXPECT_TRUE(isStillThere(list));
    ASSERT_EQ(::unlink(path.c_str()), 0);
    EXPECT_FALSE(isStillThere(list));
    // Only that nothing is there proves it.
    other.path = path + "/below";
    std::ofstream(path) << "a\n";
    EXPECT_TRUE(isStillThere(other));
}

} // namespace
} // namespace confirming
