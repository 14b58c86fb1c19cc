// Where in a configuration file stands what the daemon takes from it.
#include "control/check/config_view.h"

#include "config/config_text.h"
#include "utilities/text.h"

#include <algorithm>
#include <sstream>

namespace control {

namespace {

/// The last of some that begin at a place or before it; null if there is none.
template<class Part>
const Part* lastBefore(const std::vector<Part>& parts, std::size_t Part::*begin,
                       std::size_t place) {
    const auto behind =
        std::upper_bound(parts.begin(), parts.end(), place,
                         [begin](std::size_t at, const Part& part) { return at < part.*begin; });
    return behind == parts.begin() ? nullptr : &*std::prev(behind);
}

/// What the daemon's own lookup makes of a key; nothing if it would leave what was there.
std::optional<std::string> takenBy(const Key& key, const std::string& text) {
    if (!key.isNumber()) {
        std::string word = " "; // which no word is
        UTILITIES::readVar(text, key.name, word);
        return word == " " ? std::nullopt : std::optional<std::string>(word);
    }
    // What is left alone is left at both.
    int first = 0;
    int second = 1;
    for (int* const number : {&first, &second}) {
        if (key.kind == Key::Kind::number) {
            UTILITIES::readVar(text, key.name, *number);
        } else if (UTILITIES::findValue(text, key.name) != std::string::npos) {
            UTILITIES::parseSizeVar(text, key.name, *number);
        }
    }
    return first == second ? std::optional<std::string>(std::to_string(first)) : std::nullopt;
}

} // namespace

const std::vector<Key>& allKeys() {
    using Kind = Key::Kind;
    static const std::vector<Key> keys = {
        {"logfile", Kind::path, false, false, "a whole path"},
        {"logfile_max_number", Kind::number, false, false, "a whole number, 1000 at most"},
        {"logfile_max_size", Kind::size, false, false, "a number below 2G, such as 10M"},
        {"uid", Kind::word, false, true, "a user, as one word"},
        {"gid", Kind::word, false, true, "a group, as one word"},
        {"usrdir", Kind::path, false, true, "a path with one $UID and one $GID at most"},
        {"detectorID", Kind::word, true, false, "one word"},
        {"remoteIP", Kind::word, true, true, "the detector's address or name alone"},
        {"source", Kind::path, true, true, "a folder of the share, without \"..\""},
        {"target", Kind::path, true, true, "a whole path"},
        {"minpause", Kind::number, true, false, "milliseconds, up to 2147483647"},
        {"interrun_pause", Kind::number, true, false, "milliseconds, up to 2147483647"},
    };
    return keys;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view whiteSpace = " \t\n\v\f\r";
    text.remove_prefix(std::min(text.find_first_not_of(whiteSpace), text.size()));
    return text.substr(0, text.find_last_not_of(whiteSpace) + 1);
}

const KeyUse* KeyUses::lookUp(const std::string& key) const {
    const auto found = find(key);
    return found == end() ? nullptr : &found->second;
}

std::string KeyUses::valueOf(const std::string& key) const {
    const KeyUse* const use = lookUp(key);
    return use == nullptr ? "" : use->taken.value_or("");
}

ConfigView::ConfigView(const std::string& file) {
    std::istringstream stream(file);
    std::string line;
    for (int number = 1; std::getline(stream, line); ++number) {
        if (cutLine > 0) {
            ++ignoredLines;
            continue;
        }
        // Whether the daemon goes on behind the line shows a second one.
        constexpr std::string_view second = "\nx ";
        std::istringstream two(line + "\nx");
        const std::string kept = readConfigText(two);
        if (kept.size() < second.size()) {
            cutLine = number;
            cutLength = line.size();
            continue;
        }
        if (line.find('\0') != std::string::npos && nulLine == 0) {
            nulLine = number;
        }
        if (kept.size() > second.size()) {
            const std::string one = kept.substr(0, kept.size() - second.size());
            lines.push_back({number, one.substr(1, one.size() - 2), text.size() + 1});
            text += one;
        }
    }
    settings = findAll(false, text, 0);
    readBlocks();
}

void ConfigView::readBlocks() {
    std::map<std::string, Pause> pauses = {{"minpause", {}}, {"interrun_pause", {}}};
    std::size_t end = std::string::npos;
    for (const std::string& piece : cutDetectorBlocks(text)) {
        ConfigBlock block;
        // The blocks join without a gap, from the first one to the end of the text.
        block.begin = blocks.empty() ? text.find(piece) : end;
        end = block.begin + piece.size();
        block.line = lineAt(block.begin);
        block.uses = findAll(true, piece, block.begin);
        block.id = block.uses.valueOf("detectorID");
        for (auto& [key, pause] : pauses) {
            if (const KeyUse* const use = block.uses.lookUp(key); use != nullptr && use->taken) {
                pause = {std::stoi(*use->taken), use->line, block.id};
            }
        }
        block.pauses = pauses;
        const auto [earlier, isNew] = served.try_emplace(block.id, blocks.size());
        if (!isNew) {
            blocks[earlier->second].served = false;
            earlier->second = blocks.size();
        }
        blocks.push_back(std::move(block));
    }
}

int ConfigView::lineAt(std::size_t offset) const {
    const ConfigLine* const line = lastBefore(lines, &ConfigLine::offset, offset);
    return line == nullptr ? 0 : line->number;
}

const ConfigBlock* ConfigView::blockAt(std::size_t offset) const {
    return lastBefore(blocks, &ConfigBlock::begin, offset);
}

const ConfigBlock* ConfigView::servedBlock(const std::string& id) const {
    const auto found = served.find(id);
    return found == served.end() ? nullptr : &blocks[found->second];
}

KeyUses ConfigView::findAll(bool ofDetector, const std::string& piece, std::size_t begin) const {
    KeyUses uses;
    const std::string haystack = "\n" + piece;
    for (const Key& key : allKeys()) {
        const std::size_t found = haystack.find("\n" + key.name + " ");
        if (key.ofDetector != ofDetector || found == std::string::npos) {
            continue;
        }
        // The line feed in front of the piece makes up for the one in front of the key.
        const std::size_t offset = begin + found;
        uses[key.name] = {lineAt(offset), offset, takenBy(key, haystack)};
    }
    return uses;
}

} // namespace control
