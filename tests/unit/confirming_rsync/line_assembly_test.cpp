// Lines from a stream of bytes that arrives in pieces of any size.
#include "confirming_rsync/line_assembly.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace confirming {
namespace {

using namespace std::string_literals;

/// Takes each piece as its text in brackets of the kind "<" begins a line, ">" ends it, "."
/// neither.
LineAssembly::Sink showingIn(std::vector<std::string>& shown) {
    return [&shown](const LinePiece& piece) {
        std::string text(piece.text);
        if (text.size() > 20) {
            text = std::to_string(text.size()) + text.substr(0, 1);
        }
        shown.push_back((piece.begins ? "<" : ".") + text + (piece.ends ? ">" : "."));
    };
}

std::vector<std::string> assemble(const std::string& text, std::size_t portion) {
    LineAssembly lines;
    std::vector<std::string> shown;
    for (std::size_t at = 0; at < text.size(); at += portion) {
        lines.take(std::string_view(text).substr(at, portion), showingIn(shown));
    }
    lines.finish(showingIn(shown));
    return shown;
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
    Shown shown;
    lines.take("abc", showingIn(shown));
    EXPECT_EQ(shown, Shown{});
    lines.take("\n", showingIn(shown));
    EXPECT_EQ(shown, Shown{"<abc>"});
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
    Shown shown;
    lines.take("x", showingIn(shown));
    lines.finish(showingIn(shown));
    lines.finish(showingIn(shown));
    EXPECT_EQ(shown, Shown{"<x."});
}

} // namespace
} // namespace confirming
