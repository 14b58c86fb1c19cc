// The text of a journal: what it says of one copy run, and how that is written.
#include "confirming_rsync/journal_text.h"

#include "confirming_rsync/printed_name.h"

#include <charconv>
#include <cstddef>

namespace confirming {

namespace {

constexpr std::string_view title = "skarn journal 1";
constexpr std::string_view endOfHead = "names";
constexpr std::string_view ownDone = "done: own names\n";
constexpr std::string_view allDone = "done: all names\n";

/// Takes off and returns what comes before the separator; nothing if there is no separator.
std::optional<std::string_view> takeUntil(std::string_view& text, char separator) {
    const std::size_t end = text.find(separator);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(end + 1);
    return part;
}

/// Takes off the next line and checks that it is KEY VALUE...; returns what follows the key.
std::optional<std::string_view> takeField(std::string_view& text, std::string_view key) {
    const auto line = takeUntil(text, '\n');
    if (!line || line->size() <= key.size() || line->substr(0, key.size()) != key ||
        (*line)[key.size()] != ' ') {
        return std::nullopt;
    }
    return line->substr(key.size() + 1);
}

template<typename Number>
bool readNumber(std::optional<std::string_view> text, Number& number) {
    if (!text) {
        return false;
    }
    const char* const end = text->data() + text->size();
    const auto read = std::from_chars(text->data(), end, number);
    return read.ec == std::errc() && read.ptr == end;
}

bool readDaemon(std::optional<std::string_view> text, ProcessIdentity& daemon) {
    if (!text) {
        return false;
    }
    const auto boot = takeUntil(*text, ' ');
    if (!boot || boot->empty()) {
        return false;
    }
    daemon.boot = *boot;
    return readNumber(takeUntil(*text, ' '), daemon.pid) && readNumber(text, daemon.start);
}

bool readList(std::optional<std::string_view> text, FileIdentity& list) {
    if (!text || !readNumber(takeUntil(*text, ' '), list.device) ||
        !readNumber(takeUntil(*text, ' '), list.inode) ||
        !readNumber(takeUntil(*text, ' '), list.modified)) {
        return false;
    }
    list.path = unprintedName(*text);
    return !list.path.empty();
}

bool readString(std::optional<std::string_view> text, std::string& string) {
    string = unprintedName(text.value_or(std::string_view()));
    return !string.empty();
}

/// KIND and a blank are taken off already.
bool readInherited(std::string_view text, JournalEntry& entry) {
    if (!readNumber(takeUntil(text, ' '), entry.since) ||
        !readNumber(takeUntil(text, ' '), entry.rounds)) {
        return false;
    }
    entry.name = text;
    return staysBelow(entry.name);
}

bool readLine(std::string_view line, JournalBody& body) {
    if (line.substr(0, 5) == "done:") {
        body.ownDone = true;
        const std::string_view withoutLineFeed = allDone.substr(0, allDone.size() - 1);
        return line == withoutLineFeed || line == ownDone.substr(0, ownDone.size() - 1);
    }
    if (line.size() < 3 || line[1] != ' ') {
        return false;
    }
    const std::string_view rest = line.substr(2);
    if (line[0] == 'i') {
        return readInherited(rest, body.inherited.emplace_back());
    }
    if (!staysBelow(rest)) {
        return false;
    }
    if (line[0] == 'n') {
        body.intended.emplace_back(rest);
    } else if (line[0] == 'c') {
        body.confirmed.emplace(rest);
    } else {
        return false;
    }
    return true;
}

} // namespace

std::string headText(const JournalHead& head) {
    std::string text(title);
    text += "\ndaemon " + head.daemon.boot + " " + std::to_string(head.daemon.pid) + " " +
            std::to_string(head.daemon.start);
    text += "\nbegun " + std::to_string(head.begun);
    text += "\nlist " + std::to_string(head.list.device) + " " + std::to_string(head.list.inode) +
            " " + std::to_string(head.list.modified) + " " + printedName(head.list.path);
    text += "\nsource " + printedName(head.source);
    text += "\ndestination " + printedName(head.destination) + "\n";
    text += endOfHead;
    text += '\n';
    return text;
}

std::string intendedLine(const std::string& name) {
    return "n " + name + "\n";
}

std::string inheritedLine(const JournalEntry& entry) {
    return "i " + std::to_string(entry.since) + " " + std::to_string(entry.rounds) + " " +
           entry.name + "\n";
}

std::string confirmedLine(const std::string& name) {
    return "c " + name + "\n";
}

std::string_view ownDoneLine() {
    return ownDone;
}

std::string_view allDoneLine() {
    return allDone;
}

bool isAllDone(std::string_view text) {
    const std::size_t size = allDone.size();
    return text.size() > size && text[text.size() - size - 1] == '\n' &&
           text.substr(text.size() - size) == allDone;
}

std::optional<JournalHead> takeHead(std::string_view& text) {
    JournalHead head;
    if (takeUntil(text, '\n') != title || !readDaemon(takeField(text, "daemon"), head.daemon) ||
        !readNumber(takeField(text, "begun"), head.begun) ||
        !readList(takeField(text, "list"), head.list) ||
        !readString(takeField(text, "source"), head.source) ||
        !readString(takeField(text, "destination"), head.destination) ||
        takeUntil(text, '\n') != endOfHead) {
        return std::nullopt;
    }
    return head;
}

std::optional<JournalBody> readBody(std::string_view text) {
    JournalBody body;
    while (const auto line = takeUntil(text, '\n')) {
        if (!readLine(*line, body)) {
            return std::nullopt;
        }
    }
    return body;
}

} // namespace confirming
