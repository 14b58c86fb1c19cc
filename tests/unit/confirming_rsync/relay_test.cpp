// How report text gets to a reader that takes its time, or leaves.
#include "confirming_rsync/descriptors.h"
#include "confirming_rsync/relay.h"

#include <csignal>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace confirming {
namespace {

class ReportWriterTest : public testing::Test {
protected:
    ReportWriterTest() { ::signal(SIGPIPE, SIG_IGN); }
    ~ReportWriterTest() override { ::signal(SIGPIPE, SIG_DFL); }

    std::string readSome(std::size_t most) const {
        std::string text(most, '\0');
        const ssize_t count = ::read(pipe.readEnd.get(), text.data(), most);
        text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return text;
    }

    Pipe pipe = makePipe();
    ReportWriter writer{pipe.writeEnd.get()};
};

TEST_F(ReportWriterTest, WritesAllInOrder) {
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        const std::string line = "line " + std::to_string(i) + "\n";
        expected += line;
        writer.add(line);
    }
    EXPECT_EQ(writer.pending(), expected.size());
    std::string read;
    for (int rounds = 0; writer.pending() > 0 && rounds < 1000; ++rounds) {
        writer.write();
        read += readSome(100000);
    }
    EXPECT_EQ(read, expected);
}

TEST_F(ReportWriterTest, NeverWritesMoreThanAReadyPipeTakes) {
    writer.add(std::string(100000, 'x'));
    writer.write();
    EXPECT_EQ(readSome(100000).size(), 4096U);
    EXPECT_EQ(writer.pending(), 100000U - 4096U);
}

TEST_F(ReportWriterTest, WritesWholeLinesAtATime) {
    for (int i = 0; i < 3; ++i) {
        writer.add(std::string(1999, 'x') + "\n");
    }
    EXPECT_EQ(writer.written(), 0U);
    writer.write();
    EXPECT_EQ(readSome(100000).size(), 4000U);
    EXPECT_EQ(writer.written(), 4000U);
    writer.write();
    EXPECT_EQ(readSome(100000).size(), 2000U);
    EXPECT_EQ(writer.written(), 6000U);
    EXPECT_EQ(writer.pending(), 0U);
}

TEST_F(ReportWriterTest, WritesLinesThatFitExactly) {
    writer.add(std::string(4095, 'x') + "\ny\n");
    writer.write();
    EXPECT_EQ(readSome(100000).size(), 4096U);
    writer.write();
    EXPECT_EQ(readSome(100000), "y\n");
}

TEST_F(ReportWriterTest, TriesAgainWhenThePipeIsFull) {
    ASSERT_EQ(::fcntl(pipe.writeEnd.get(), F_SETFL, O_NONBLOCK), 0);
    writer.add(std::string(1000000, 'x'));
    for (int rounds = 0; rounds < 300; ++rounds) {
        writer.write();
    }
    EXPECT_FALSE(writer.hasGivenUp());
    const std::size_t before = writer.pending();
    EXPECT_GT(before, 0U);
    readSome(65536);
    writer.write();
    EXPECT_LT(writer.pending(), before);
}

TEST_F(ReportWriterTest, GivesUpWhenTheReaderIsGone) {
    writer.add("text");
    pipe.readEnd.reset();
    writer.write();
    EXPECT_TRUE(writer.hasGivenUp());
    writer.add("more");
    EXPECT_EQ(writer.pending(), 0U);
}

} // namespace
} // namespace confirming
