// Parsing a listing.
#include "transfer/listing.h"

#include "utilities/text.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int fieldsBeforePath = 4;

/// `text` without its leading blanks; only the blank character counts.
std::string_view skipBlanks(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return text;
}

/// The fifth blank-separated field of a listing line and all that follows it; empty if there is
/// none.
std::string_view pathOf(std::string_view line) {
    line = skipBlanks(line.substr(0, line.find('\n')));
    for (int i = 0; i < fieldsBeforePath; ++i) {
        line.remove_prefix(std::min(line.find(' '), line.size()));
        line = skipBlanks(line);
    }
    return line;
}

/// True if the entry lies below the directory of that name.
bool isBelow(std::string_view name, std::string_view directory) {
    return name.size() > directory.size() && name.substr(0, directory.size()) == directory &&
           name[directory.size()] == '/';
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
