// Fuzzes the reading of a journal, and of the names that runs have left, which an earlier run, or
// anyone, may have left in any state.
#include "fuzz/input.h"
#include "shares/journal_text.h"
#include "shares/printed_name.h"

#include <algorithm>

using confirming::JournalBody;
using confirming::JournalHead;
using confirming::LeftNames;
using confirming::OpenName;
using fuzz::require;

namespace {

bool same(const JournalHead& left, const JournalHead& right) {
    return left.daemon == right.daemon && left.begun == right.begun &&
           left.list.device == right.list.device && left.list.inode == right.list.inode &&
           left.list.modified == right.list.modified && left.list.path == right.list.path &&
           left.source == right.source && left.destination == right.destination;
}

bool sameName(const OpenName& left, const OpenName& right) {
    return left.name == right.name && left.isGone == right.isGone &&
           left.listings == right.listings;
}

bool same(const LeftNames& left, const LeftNames& right) {
    return left.source == right.source && left.destination == right.destination &&
           left.remarks == right.remarks &&
           std::equal(left.names.begin(), left.names.end(), right.names.begin(), right.names.end(),
                      sameName);
}

void checkName(const std::string& name) {
    require(confirming::staysBelow(name), "a name stays below the destination");
    require(name.find('\n') == std::string::npos, "a name is in one line");
}

/// The body written anew.
std::string textOf(const JournalBody& body) {
    std::string text;
    for (const std::string& name : body.intended) {
        text += confirming::intendedLine(name);
    }
    for (const std::string& name : body.taken) {
        text += confirming::takenLine(name);
    }
    for (const std::string& name : body.confirmed) {
        text += confirming::confirmedLine(name);
    }
    if (body.done) {
        text += confirming::doneLine();
    }
    return text;
}

/// True if `whole` goes on where `part` ends.
bool isBeginning(const JournalBody& part, const JournalBody& whole) {
    return part.intended.size() <= whole.intended.size() &&
           part.taken.size() <= whole.taken.size() &&
           std::equal(part.intended.begin(), part.intended.end(), whole.intended.begin()) &&
           std::equal(part.taken.begin(), part.taken.end(), whole.taken.begin()) &&
           std::includes(whole.confirmed.begin(), whole.confirmed.end(), part.confirmed.begin(),
                         part.confirmed.end()) &&
           (whole.done || !part.done);
}

void checkBody(std::string_view text) {
    const auto body = confirming::readBody(text);
    if (!body) {
        return;
    }
    for (const std::string& name : body->intended) {
        checkName(name);
    }
    for (const std::string& name : body->taken) {
        checkName(name);
    }
    for (const std::string& name : body->confirmed) {
        checkName(name);
    }
    const auto again = confirming::readBody(textOf(*body));
    require(again && isBeginning(*again, *body) && isBeginning(*body, *again),
            "what was read can be written and read again");
    // The writer may have been ended at any byte.
    const std::size_t step = text.size() / 16 + 1;
    for (std::size_t size = 0; size < text.size(); size += step) {
        const auto cut = confirming::readBody(text.substr(0, size));
        require(cut && isBeginning(*cut, *body), "a journal that breaks off says what it said");
    }
}

void checkLeftNames(std::string_view text) {
    const auto left = confirming::readLeftNames(text);
    if (!left) {
        return;
    }
    for (const OpenName& open : left->names) {
        checkName(open.name);
    }
    const auto again = confirming::readLeftNames(confirming::leftNamesText(*left));
    require(again && same(*again, *left), "left names can be written and read again");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::text(data, size);
    std::string_view rest = text;
    const auto head = confirming::takeHead(rest);
    if (head) {
        const std::string written = confirming::headText(*head);
        std::string_view unread = written;
        const auto again = confirming::takeHead(unread);
        require(again && same(*again, *head) && unread.empty(),
                "a head can be written and read again");
        checkBody(rest);
    }
    checkBody(text);
    checkLeftNames(text);
    confirming::parseProcessStatus(text);
    return 0;
}
