// What is in place under an announced path.
#include "relay/file_look.h"
#include "tests/unit/relay/scratch.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace relay {

namespace {

class FileLookTest : public testing::Test {
protected:
    Record at(const std::string& name) {
        const std::string path = scratch.path("target/./") + name;
        Record record;
        const Targets targets("/nonexistent");
        FileLook().at(targets.locate(path), record);
        return record;
    }

    Scratch scratch;
};

TEST_F(FileLookTest, GivesWhatAFileIs) {
    scratch.file("target/run/f", "12345");
    const Record record = at("run/f");
    ASSERT_TRUE(record.identity);
    EXPECT_EQ(record.identity->size, 5);
    EXPECT_GT(record.identity->mtime, 0);
    EXPECT_NE(record.identity->inode, 0U);
    EXPECT_EQ(record.type, FileType::file);
    EXPECT_EQ(record.way, Way::linkFree);
    EXPECT_FALSE(record.isGone);
}

TEST_F(FileLookTest, TellsWhatIsSurelyGone) {
    scratch.file("target/f", "");
    EXPECT_TRUE(at("g").isGone);
    EXPECT_TRUE(at("run/g").isGone);
    EXPECT_FALSE(at("f/g").isGone) << "a file in the folder's place proves nothing";
    EXPECT_FALSE(at(std::string(300, 'x')).isGone) << "nor does a name that can't be";
    EXPECT_FALSE(at("").isGone);
}

TEST_F(FileLookTest, FollowsNoLinkBelowTheTarget) {
    scratch.file("target/run/f", "1");
    scratch.file("outside/f", "1");
    std::filesystem::create_symlink("run", scratch.path("target/inside"));
    std::filesystem::create_symlink(scratch.path("outside"), scratch.path("target/out"));
    std::filesystem::create_symlink("run/f", scratch.path("target/link"));
    for (const char* const name : {"inside/f", "out/f", "../outside/f"}) {
        EXPECT_EQ(at(name).way, Way::hasLink) << name;
        EXPECT_FALSE(at(name).identity) << name;
        EXPECT_FALSE(at(name).isGone) << name;
    }
    EXPECT_EQ(at("link").type, FileType::link);
    EXPECT_EQ(at("link").way, Way::linkFree);
}

TEST_F(FileLookTest, FollowsALinkInTheTargetItself) {
    scratch.file("real/f", "1");
    std::filesystem::create_symlink("real", scratch.path("target"));
    EXPECT_EQ(at("f").type, FileType::file);
    EXPECT_EQ(at("f").way, Way::linkFree);
}

TEST_F(FileLookTest, TellsTypes) {
    std::filesystem::create_directories(scratch.path("target/folder"));
    ASSERT_EQ(::mkfifo(scratch.path("target/pipe").c_str(), 0600), 0);
    EXPECT_EQ(at("folder").type, FileType::folder);
    EXPECT_EQ(at("pipe").type, FileType::special);
}

TEST_F(FileLookTest, ClaimsNoFreeWayWhereTheTargetIsAGuess) {
    const std::string path = scratch.file("target/f", "1");
    Record record;
    FileLook().at(Targets("/nonexistent").locate(path), record);
    EXPECT_TRUE(record.identity);
    EXPECT_EQ(record.way, Way::unknown);
}

TEST_F(FileLookTest, LooksAtManyFoldersInTurn) {
    const Targets targets("/nonexistent");
    FileLook look;
    for (int n = 0; n < 20; ++n) {
        const std::string name = "run" + std::to_string(n % 3) + "/f" + std::to_string(n);
        scratch.file("target/" + name, std::string(static_cast<std::size_t>(n), 'x'));
        const std::string path = scratch.path("target/./") + name;
        Record record;
        look.at(targets.locate(path), record);
        ASSERT_TRUE(record.identity) << name;
        EXPECT_EQ(record.identity->size, n);
    }
}

} // namespace

} // namespace relay
