// The names that stock rsync is told to copy, as rsync will print them.
#include "confirming_rsync/file_list.h"

#include <cstdlib>
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
    ~FileListOnDisk() override {
        ::unlink(path.c_str());
        ::rmdir(directory.c_str());
    }

    std::string directory;
    std::string path;
};

TEST_F(FileListOnDisk, IsReadWhole) {
    const std::string text(300000, 'x');
    std::ofstream(path) << text << '\n';
    EXPECT_EQ(readFileList(path).text, text + "\n");
}

TEST_F(FileListOnDisk, IsEmptyIfItCanNotBeRead) {
    EXPECT_EQ(readFileList(path).text, "");
    EXPECT_EQ(readFileList(directory).text, "");
    EXPECT_EQ(readFileList("").text, "");
}

TEST_F(FileListOnDisk, IsLeftToRsyncIfItIsAPipe) {
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const int both = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::write(both, "a\n", 2), 2);
    EXPECT_EQ(readFileList(path).text, "");
    char left[3] = {};
    EXPECT_EQ(::read(both, left, sizeof left), 2);
    ::close(both);
}

} // namespace
} // namespace confirming
