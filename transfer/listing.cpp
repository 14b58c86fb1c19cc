// Parsing a listing.
#include "transfer/listing.h"

#include "utilities/piece_reader.h"
#include "utilities/text.h"

#include <utility>

namespace {

constexpr int fieldsBeforePath = 4;

/// Only the blank character separates fields.
constexpr bool isBlank(char character) {
    return character == ' ';
}

/// The fifth blank-separated field of a listing line and all that follows it; empty, or the line
/// feed alone, if there is none.
std::string_view pathOf(std::string_view line) {
    const char* position = line.data();
    const char* const end = position + line.size();
    // Byte by byte: the fields are too short for a search to be worth its call.
    const auto skipWhile = [&position, end](auto isSkipped) {
        while (position != end && isSkipped(*position)) {
            ++position;
        }
    };
    skipWhile(isBlank);
    for (int i = 0; i < fieldsBeforePath; ++i) {
        skipWhile([](char character) { return !isBlank(character); });
        skipWhile(isBlank);
    }
    return line.substr(static_cast<std::size_t>(position - line.data()));
}

/// True if the entry lies below the directory of that name.
bool isBelow(std::string_view name, std::string_view directory) {
    return name.size() > directory.size() && name[directory.size()] == '/' &&
           name.substr(0, directory.size()) == directory;
}

} // namespace

void ListingParser::addLine(std::string_view line) {
    std::string_view path = pathOf(line);
    if (path.empty() || path.front() == '.') {
        return;
    }
    const std::string_view name = UTILITIES::takeWord(path);
    if (name.empty()) {
        return;
    }
    // The last line that was kept is always the last name: one that takes it out stands there then.
    if (!transferList.empty() && isBelow(name, transferList.last())) {
        transferList.removeLast();
    }
    transferList.add(name);
}

NameList ListingParser::takeNames() {
    return std::exchange(transferList, {});
}

NameList readListing(int descriptor) {
    ListingParser parser;
    PieceReader reader(descriptor);
    std::string_view line;
    while (reader.next(line)) {
        parser.addLine(line);
    }
    return parser.takeNames();
}
