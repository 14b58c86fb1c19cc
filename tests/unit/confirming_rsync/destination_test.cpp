// What the directory that files arrive in tells about them.
#include "confirming_rsync/destination.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {
namespace {

class DestinationTest : public testing::Test {
protected:
    DestinationTest() {
        char name[] = "/tmp/destination_test.XXXXXX";
        path = ::mkdtemp(name);
    }
    ~DestinationTest() override { std::filesystem::remove_all(path); }

    void makeFile(const std::string& name) const { std::ofstream(path + "/" + name) << "x"; }

    std::string path;
};

TEST_F(DestinationTest, KnowsThatNoSentLineFollowsForARegularFile) {
    makeFile("a");
    makeFile("n\nl");
    const Destination destination(path + "/./");
    EXPECT_FALSE(destination.sentLineMayFollow("a"));
    EXPECT_FALSE(destination.sentLineMayFollow("n\\#012l"));
}

TEST_F(DestinationTest, ExpectsASentLineForEverythingElse) {
    makeFile("a");
    ASSERT_EQ(::link((path + "/a").c_str(), (path + "/b").c_str()), 0);
    ASSERT_EQ(::symlink("a", (path + "/link").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (path + "/dangling").c_str()), 0);
    ASSERT_EQ(::mkfifo((path + "/fifo").c_str(), 0600), 0);
    const Destination destination(path);
    for (const char* name : {"a", "b", "link", "dangling", "fifo", "missing", "a/b", "x\\#000"}) {
        EXPECT_TRUE(destination.sentLineMayFollow(name)) << name;
    }
}

TEST_F(DestinationTest, HasFilesOfEveryKindButDirectories) {
    makeFile("a");
    ASSERT_EQ(::symlink("nowhere", (path + "/dangling").c_str()), 0);
    ASSERT_EQ(::mkdir((path + "/sub").c_str(), 0700), 0);
    makeFile("sub/b");
    const Destination destination(path);
    for (const char* name : {"a", "dangling", "sub/b"}) {
        EXPECT_TRUE(destination.hasFile(name)) << name;
    }
    for (const char* name : {"sub", "missing", "a/b", "a\\#000"}) {
        EXPECT_FALSE(destination.hasFile(name)) << name;
    }
}

} // namespace
} // namespace confirming
