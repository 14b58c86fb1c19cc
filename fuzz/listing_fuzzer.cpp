// Fuzzes the reading of a share's listing.
#include "confirming_rsync/share_question.h"
#include "fuzz/input.h"
#include "transfer/listing.h"

#include <sstream>

using fuzz::require;

namespace {

/// The path of a listing line, taken from it byte by byte; null when there is none.
const char* pathOf(const char* line) {
    while (*line == ' ') {
        ++line;
    }
    for (int field = 0; field < 4; ++field) {
        while (*line != '\0' && *line != ' ') {
            ++line;
        }
        while (*line == ' ') {
            ++line;
        }
    }
    return *line == '\0' || *line == '\n' || *line == '.' ? nullptr : line;
}

std::vector<std::string> expectedNames(const std::vector<std::string>& pieces) {
    std::vector<std::string> names;
    for (const std::string& piece : pieces) {
        const char* const path = pathOf(piece.c_str());
        std::string name;
        if (path == nullptr || !(std::istringstream(path) >> name)) {
            continue;
        }
        if (!names.empty() && name.rfind(names.back() + "/", 0) == 0) {
            names.pop_back();
        }
        names.push_back(name);
    }
    return names;
}

/// True if the copy program takes the line for one about something of that name, which ends at its
/// first white space.
bool isHeardOf(const std::string& line, const std::string& name) {
    bool heard = false;
    confirming::forListedNames(line, [&](std::string_view listed) {
        std::string first;
        heard = heard || (std::istringstream(std::string(listed)) >> first && first == name);
    });
    return heard;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::string> pieces = fuzz::readPieces(fuzz::text(data, size));
    ListingParser parser;
    for (const std::string& piece : pieces) {
        parser.addLine(piece);
        ListingParser alone;
        alone.addLine(piece);
        const auto named = alone.takeNames();
        require(named.empty() ||
                    isHeardOf(piece.substr(0, piece.find('\n')), std::string(*named.begin())),
                "the copy program hears of each line that gives the daemon a name");
    }
    const auto taken = parser.takeNames();
    const std::vector<std::string> names(taken.begin(), taken.end());
    require(names.size() <= pieces.size(), "a line gives one name at most");
    for (const std::string& name : names) {
        require(!name.empty(), "no name is empty");
        // What stands on a line of a file list is one name.
        require(!fuzz::hasSpace(name), "no name holds white space");
        require(name.find('\0') == std::string::npos, "no name holds a NUL byte");
        require(name.size() < 1024, "no name is longer than the buffer");
    }
    require(names == expectedNames(pieces), "the names are those of the lines");
    require(parser.takeNames().empty(), "names are handed over once");
    return 0;
}
