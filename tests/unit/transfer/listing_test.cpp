// Parsing a listing.
#include "transfer/listing.h"
#include "utilities/descriptors.h"

#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// The line of an entry at this path, as the copy program prints it.
std::string entry(const std::string& path) {
    return "-rw-r--r--          1,024 2026/01/02 03:04:05 " + path + "\n";
}

/// The names that the parser hands over.
std::vector<std::string> taken(ListingParser& parser) {
    const NameList names = parser.takeNames();
    return {names.begin(), names.end()};
}

/// The transfer list of these lines.
std::vector<std::string> namesOf(const std::vector<std::string>& lines) {
    ListingParser parser;
    for (const std::string& line : lines) {
        parser.addLine(line);
    }
    return taken(parser);
}

/// The transfer list of entries at these paths.
std::vector<std::string> namesAt(const std::vector<std::string>& paths) {
    std::vector<std::string> lines;
    lines.reserve(paths.size());
    for (const std::string& path : paths) {
        lines.push_back(entry(path));
    }
    return namesOf(lines);
}

} // namespace

TEST(ListingParser, KeepsNamesInListingOrder) {
    EXPECT_THAT(namesAt({"b", "a", "c/d"}), ElementsAre("b", "a", "c/d"));
}

TEST(ListingParser, DropsTheEntryOfTheDirectoryItself) {
    EXPECT_THAT(namesAt({"."}), IsEmpty());
}

TEST(ListingParser, DropsPathsThatBeginWithADotOnly) {
    EXPECT_THAT(namesAt({".hidden", "..", ".d/x", "sub/.x", "a.b"}), ElementsAre("sub/.x", "a.b"));
}

TEST(ListingParser, DropsADirectoryWhoseContentsFollow) {
    EXPECT_THAT(namesAt({"dir", "dir/a", "dir/b", "empty"}),
                ElementsAre("dir/a", "dir/b", "empty"));
    EXPECT_THAT(namesAt({"d", "d/e", "d/e/f", "d/e/g", "h"}), ElementsAre("d/e/f", "d/e/g", "h"));
}

TEST(ListingParser, KeepsEmptyDirectories) {
    EXPECT_THAT(namesAt({"d", "d/empty", "d/f"}), ElementsAre("d/empty", "d/f"));
}

TEST(ListingParser, KeepsAFileWhoseNameIsTheBeginningOfTheNext) {
    EXPECT_THAT(namesAt({"run", "run1", "run.dat", "run"}),
                ElementsAre("run", "run1", "run.dat", "run"));
}

TEST(ListingParser, ComparesWithTheNameBeforeAlthoughItWasTakenOut) {
    // "d/e" is taken out by "d/e/f", and "d/e/g" follows "d/e/f": nothing more is taken out.
    EXPECT_THAT(namesAt({"x", "d/e", "d/e/f", "d/e/g"}), ElementsAre("x", "d/e/f", "d/e/g"));
}

TEST(ListingParser, TakesTheFifthField) {
    EXPECT_THAT(namesOf({"one two three four five six\n"}), ElementsAre("five"));
    EXPECT_THAT(namesOf({"   one    two three    four    five\n"}), ElementsAre("five"));
}

TEST(ListingParser, CutsAPathAtItsFirstBlank) {
    EXPECT_THAT(namesAt({"my file.dat"}), ElementsAre("my"));
    EXPECT_THAT(namesAt({"a\tb"}), ElementsAre("a"));
}

TEST(ListingParser, TakesTheNameOfASymbolicLink) {
    EXPECT_THAT(namesOf({"lrwxrwxrwx             11 2026/01/02 03:04:05 link -> to/target\n"}),
                ElementsAre("link"));
}

TEST(ListingParser, CountsOnlyTheBlankAsSeparatorOfFields) {
    EXPECT_THAT(namesOf({"a\tb c d e f\n"}), ElementsAre("f"));
}

TEST(ListingParser, LooksForADotAtThePathsFirstByteBeforeOtherWhiteSpace) {
    EXPECT_THAT(namesAt({"\t.x"}), ElementsAre(".x"));
}

TEST(ListingParser, SkipsEmptyAndBlankLines) {
    EXPECT_THAT(namesOf({"", "\n", "    \n", "   "}), IsEmpty());
}

TEST(ListingParser, SkipsLinesOfFewerThanFiveFields) {
    EXPECT_THAT(namesOf({"one\n", "one two three four\n", "one two three four   \n",
                         "one two three four", "rsync error: refused\n"}),
                IsEmpty());
    EXPECT_THAT(namesOf({"a b c d \t\n", "a b c d \t"}), IsEmpty());
}

TEST(ListingParser, TakesALineWithoutLineFeed) {
    EXPECT_THAT(namesOf({"-rw-r--r-- 1 2026/01/02 03:04:05 last"}), ElementsAre("last"));
}

TEST(ListingParser, NeverLooksBehindTheEndOfTheView) {
    const std::string text = "a b c d name_and_more";
    ListingParser parser;
    parser.addLine(std::string_view(text).substr(0, 12));
    EXPECT_THAT(taken(parser), ElementsAre("name"));
}

TEST(ListingParser, TakesAnyBytes) {
    EXPECT_THAT(namesAt({"\xff\xfe\x01"}), ElementsAre("\xff\xfe\x01"));
    EXPECT_THAT(namesOf({std::string("a b c d e\0f\n", 12)}), ElementsAre(std::string("e\0f", 3)));
}

TEST(ListingParser, TakesEachPieceOfALongLineAsALine) {
    const std::string line = entry(std::string(1500, 'x'));
    EXPECT_THAT(namesOf({line.substr(0, 1023), line.substr(1023)}),
                ElementsAre(line.substr(46, 1023 - 46)));
}

TEST(ListingParser, StartsANewListingWhenTheNamesAreTaken) {
    ListingParser parser;
    parser.addLine(entry("dir"));
    EXPECT_THAT(taken(parser), ElementsAre("dir"));
    EXPECT_THAT(taken(parser), IsEmpty());
    parser.addLine(entry("x"));
    parser.addLine(entry("dir/a"));
    EXPECT_THAT(taken(parser), ElementsAre("x", "dir/a"));
}

TEST(ReadListing, ReadsToTheEndInLinesAndPieces) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const Descriptor readEnd(ends[0]);
    Descriptor writeEnd(ends[1]);
    const std::string longLine = entry(std::string(1500, 'x'));
    ASSERT_TRUE(writeAll(writeEnd.get(), entry("dir") + entry("dir/a") + longLine +
                                             std::string("\0 b c d e\n", 10) + "a b c d last"));
    writeEnd.reset();
    const NameList names = readListing(readEnd.get());
    EXPECT_THAT(std::vector<std::string>(names.begin(), names.end()),
                ElementsAre("dir/a", longLine.substr(46, 1023 - 46), "last"));
}
