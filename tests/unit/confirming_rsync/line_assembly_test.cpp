// Lines from a stream of bytes that arrives in pieces of any size.
#include "confirming_rsync/line_assembly.h"

#include <algorithm>

#include <gtest/gtest.h>

namespace confirming {
namespace {

using namespace std::string_literals;

/// Each piece as its text in brackets of the kind "<" begins a line, ">" ends it, "." neither.
std::vector<std::string> shown(const std::vector<LinePiece>& pieces) {
    std::vector<std::string> result;
    for (const LinePiece& piece : pieces) {
        std::string text = piece.text.size() > 20
                               ? std::to_string(piece.text.size()) + piece.text.substr(0, 1)
                               : piece.text;
        text.insert(0, piece.begins ? "<" : ".");
        text += piece.ends ? ">" : ".";
        result.push_back(std::move(text));
    }
    return result;
}

std::vector<std::string> assemble(const std::string& text, std::size_t portion) {
    LineAssembly lines;
    std::vector<LinePiece> pieces;
    for (std::size_t at = 0; at < text.size(); at += portion) {
        lines.take(std::string_view(text).substr(at, portion), pieces);
    }
    lines.finish(pieces);
    return shown(pieces);
}

using Shown = std::vector<std::string>;

TEST(LineAssembly, CutsAtLineFeedsWhereverTheyArrive) {
    const std::string text = "one\n\nthree\r\n\0x\nlast"s;
    const Shown expected{"<one>", "<>", "<three\r>", "<\0x>"s, "<last."};
    for (std::size_t portion = 1; portion <= text.size(); ++portion) {
        EXPECT_EQ(assemble(text, portion), expected) << portion;
    }
}

TEST(LineAssembly, GivesNothingBeforeALineIsComplete) {
    LineAssembly lines;
    std::vector<LinePiece> pieces;
    lines.take("abc", pieces);
    EXPECT_TRUE(pieces.empty());
    lines.take("\n", pieces);
    EXPECT_EQ(shown(pieces), Shown{"<abc>"});
}

const std::string size = std::to_string(LineAssembly::limit);

TEST(LineAssembly, PassesOnALineThatIsJustAtTheLimit) {
    const std::string text = std::string(LineAssembly::limit, 'x') + "\ny\n";
    for (const std::size_t portion : {std::size_t{1}, std::size_t{1000}, text.size()}) {
        EXPECT_EQ(assemble(text, portion), (Shown{"<" + size + "x>", "<y>"})) << portion;
    }
}

TEST(LineAssembly, CutsALongerLineIntoPiecesThatDoNotDependOnTheArrival) {
    const std::string text = std::string(2 * LineAssembly::limit, 'x') + "rest\n" +
                             std::string(LineAssembly::limit + 1, 'z');
    const Shown expected{"<" + size + "x.", "." + size + "x.", ".rest>", "<" + size + "z.", ".z."};
    for (const std::size_t portion :
         {std::size_t{1}, std::size_t{7}, std::size_t{LineAssembly::limit}, LineAssembly::limit + 1,
          text.size()}) {
        EXPECT_EQ(assemble(text, portion), expected) << portion;
    }
}

TEST(LineAssembly, FinishesNothingTwice) {
    LineAssembly lines;
    std::vector<LinePiece> pieces;
    lines.take("x", pieces);
    lines.finish(pieces);
    lines.finish(pieces);
    EXPECT_EQ(shown(pieces), Shown{"<x."});
}

} // namespace
} // namespace confirming
