// The text of a journal: what it says of one copy run, and how that is written.
#include "shares/journal_text.h"

#include "shares/printed_name.h"

#include <charconv>
#include <cstddef>
#include <utility>

namespace confirming {

namespace {

constexpr std::string_view title = "skarn journal 2";
constexpr std::string_view leftTitle = "skarn left names 1";
constexpr std::string_view endOfHead = "names";
constexpr std::string_view done = "done";

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

bool readLine(std::string_view line, JournalBody& body) {
    if (body.done || line == done) {
        return !std::exchange(body.done, true);
    }
    const auto kind = takeUntil(line, ' ');
    if (!kind || !staysBelow(line)) {
        return false;
    }
    if (kind == "n") {
        body.intended.emplace_back(line);
    } else if (kind == "t") {
        body.taken.emplace_back(line);
    } else if (kind == "c") {
        body.confirmed.emplace(line);
    } else {
        return false;
    }
    return true;
}

bool readLeftLine(std::string_view line, LeftNames& left) {
    const auto kind = takeUntil(line, ' ');
    if (kind == "remark") {
        left.remarks.emplace_back(line);
        return true;
    }
    OpenName open;
    open.isGone = kind == "gone";
    if (!open.isGone && (kind != "there" || !readNumber(takeUntil(line, ' '), open.listings))) {
        return false;
    }
    open.name = line;
    left.names.push_back(std::move(open));
    return staysBelow(line);
}

std::string whereText(const std::string& source, const std::string& destination) {
    std::string text = "\nsource " + printedName(source);
    text += "\ndestination " + printedName(destination) + "\n";
    text += endOfHead;
    text += '\n';
    return text;
}

bool takeWhere(std::string_view& text, std::string& source, std::string& destination) {
    return readString(takeField(text, "source"), source) &&
           readString(takeField(text, "destination"), destination) &&
           takeUntil(text, '\n') == endOfHead;
}

} // namespace

std::string headText(const JournalHead& head) {
    std::string text(title);
    text += "\ndaemon " + head.daemon.boot + " " + std::to_string(head.daemon.pid) + " " +
            std::to_string(head.daemon.start);
    text += "\nbegun " + std::to_string(head.begun);
    text += "\nlist " + std::to_string(head.list.device) + " " + std::to_string(head.list.inode) +
            " " + std::to_string(head.list.modified) + " " + printedName(head.list.path);
    return text + whereText(head.source, head.destination);
}

std::string intendedLine(const std::string& name) {
    return "n " + name + "\n";
}

std::string takenLine(const std::string& name) {
    return "t " + name + "\n";
}

std::string confirmedLine(const std::string& name) {
    return "c " + name + "\n";
}

std::string_view doneLine() {
    return "done\n";
}

std::optional<JournalHead> takeHead(std::string_view& text) {
    JournalHead head;
    if (takeUntil(text, '\n') != title || !readDaemon(takeField(text, "daemon"), head.daemon) ||
        !readNumber(takeField(text, "begun"), head.begun) ||
        !readList(takeField(text, "list"), head.list) ||
        !takeWhere(text, head.source, head.destination)) {
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

std::string leftNamesText(const LeftNames& left) {
    std::string text(leftTitle);
    text += whereText(left.source, left.destination);
    for (const OpenName& open : left.names) {
        text += open.isGone ? "gone " : "there " + std::to_string(open.listings) + " ";
        text += open.name + "\n";
    }
    for (const std::string& remark : left.remarks) {
        text += "remark " + remark + "\n";
    }
    return text;
}

std::optional<LeftNames> readLeftNames(std::string_view text) {
    LeftNames left;
    if (takeUntil(text, '\n') != leftTitle || !takeWhere(text, left.source, left.destination)) {
        return std::nullopt;
    }
    while (const auto line = takeUntil(text, '\n')) {
        if (!readLeftLine(*line, left)) {
            return std::nullopt;
        }
    }
    return text.empty() ? std::optional(left) : std::nullopt;
}

} // namespace confirming
