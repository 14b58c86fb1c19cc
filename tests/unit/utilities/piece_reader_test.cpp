// Reading lines, and pieces of long ones.
#include "utilities/descriptors.h"
#include "utilities/piece_reader.h"

#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A pipe whose ends are closed at the latest when it goes.
struct Pipe {
    Pipe() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        readEnd = Descriptor(ends[0]);
        writeEnd = Descriptor(ends[1]);
    }
    Descriptor readEnd;
    Descriptor writeEnd;
};

/// All pieces that come from the descriptor.
std::vector<std::string> piecesFrom(int descriptor) {
    PieceReader reader(descriptor);
    std::vector<std::string> pieces;
    std::string_view piece;
    while (reader.next(piece)) {
        pieces.emplace_back(piece);
    }
    return pieces;
}

/// The pieces of a text that is written in parts of `partSize` bytes.
std::vector<std::string> piecesOf(const std::string& text, std::size_t partSize) {
    Pipe pipe;
    std::thread writer([&pipe, &text, partSize] {
        for (std::size_t begin = 0; begin < text.size(); begin += partSize) {
            writeAll(pipe.writeEnd.get(), std::string_view(text).substr(begin, partSize));
        }
        pipe.writeEnd.reset();
    });
    std::vector<std::string> pieces = piecesFrom(pipe.readEnd.get());
    writer.join();
    return pieces;
}

std::vector<std::string> piecesOf(const std::string& text) {
    return piecesOf(text, text.size() + 1);
}

/// The same by fgets.
std::vector<std::string> piecesByFgets(const std::string& text) {
    std::string copy = text;
    FILE* const stream = fmemopen(copy.data(), copy.size(), "r");
    std::vector<std::string> pieces;
    char piece[1024];
    while (fgets(piece, sizeof piece, stream) != nullptr) {
        pieces.emplace_back(piece);
    }
    fclose(stream);
    return pieces;
}

} // namespace

TEST(PieceReader, GivesNothingOfAnEmptyText) {
    EXPECT_THAT(piecesOf(""), IsEmpty());
}

TEST(PieceReader, GivesLinesWithTheirLineFeeds) {
    EXPECT_THAT(piecesOf("a\n\nbc\n"), ElementsAre("a\n", "\n", "bc\n"));
}

TEST(PieceReader, GivesALastLineWithoutLineFeed) {
    EXPECT_THAT(piecesOf("a\nb"), ElementsAre("a\n", "b"));
}

TEST(PieceReader, CutsALongLineIntoPiecesOf1023Bytes) {
    const std::string x(1023, 'x');
    EXPECT_THAT(piecesOf(x + x + "y\nz\n"), ElementsAre(x, x, "y\n", "z\n"));
    EXPECT_THAT(piecesOf(x + "\n"), ElementsAre(x, "\n"));
    EXPECT_THAT(piecesOf(x.substr(1) + "\n" + x), ElementsAre(x.substr(1) + "\n", x));
}

TEST(PieceReader, EndsAPieceBeforeItsFirstNul) {
    EXPECT_THAT(piecesOf(std::string("ab\0c\0d\n\0e\nf\n", 12)), ElementsAre("ab", "", "f\n"));
}

TEST(PieceReader, GivesALineAsSoonAsItIsThere) {
    const Pipe pipe;
    PieceReader reader(pipe.readEnd.get());
    std::string_view piece;
    ASSERT_TRUE(writeAll(pipe.writeEnd.get(), "first\nsecond\nthi"));
    ASSERT_TRUE(reader.next(piece));
    EXPECT_EQ(piece, "first\n");
    ASSERT_TRUE(reader.next(piece));
    EXPECT_EQ(piece, "second\n");
    ASSERT_TRUE(writeAll(pipe.writeEnd.get(), "rd\n"));
    ASSERT_TRUE(reader.next(piece));
    EXPECT_EQ(piece, "third\n");
}

TEST(PieceReader, GivesAFullPieceAsSoonAsItIsThere) {
    const Pipe pipe;
    PieceReader reader(pipe.readEnd.get());
    std::string_view piece;
    ASSERT_TRUE(writeAll(pipe.writeEnd.get(), std::string(1023, 'x')));
    ASSERT_TRUE(reader.next(piece));
    EXPECT_EQ(piece, std::string(1023, 'x'));
}

TEST(PieceReader, GivesWhatFgetsGivesHoweverTheTextComes) {
    constexpr unsigned seed = 20261121;
    // NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp): foreseeable on purpose, a failure must repeat
    std::mt19937 random(seed);
    std::string text;
    while (text.size() < 100000) {
        // Some lines of about one and two pieces, and a NUL here and there, but at times none for
        // as long as several reads.
        const std::size_t length =
            random() % 10 == 0 ? random() % 10 + 1018 * (1 + random() % 2) : random() % 120;
        std::string line(length, static_cast<char>('a' + random() % 26));
        if (!line.empty() && random() % 40 == 0 && text.size() % 60000 < 20000) {
            line[random() % line.size()] = '\0';
        }
        text += line + "\n";
    }
    const std::vector<std::string> expected = piecesByFgets(text);
    for (const std::size_t partSize : {7U, 1000U, 1024U, 4096U, 16384U, 65536U}) {
        EXPECT_EQ(piecesOf(text, partSize), expected) << "in parts of " << partSize;
    }
}

TEST(PieceReader, EndsWhereReadingFails) {
    EXPECT_THAT(piecesFrom(-1), IsEmpty());
    const Descriptor folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_THAT(piecesFrom(folder.get()), IsEmpty());
}

TEST(PieceReader, DropsTheBeginningOfALineThatCanNotBeReadToItsEnd) {
    const Pipe pipe;
    ASSERT_EQ(fcntl(pipe.readEnd.get(), F_SETFL, O_NONBLOCK), 0);
    ASSERT_TRUE(writeAll(pipe.writeEnd.get(), "whole\nbroken o"));
    EXPECT_THAT(piecesFrom(pipe.readEnd.get()), ElementsAre("whole\n"));
}
