// Where in a configuration file stands what the daemon takes from it.
#include "control/check/config_view.h"

#include "config/config_text.h"
#include "utilities/text.h"

#include <algorithm>
#include <sstream>

namespace control {

namespace {

/// What the daemon keeps of one line; nothing if it drops the line, or can't read it.
std::optional<std::string> keptText(const std::string& line) {
    std::istringstream stream(line);
    const std::string text = readConfigText(stream);
    if (text.size() < 2) {
        return std::nullopt;
    }
    return text.substr(1, text.size() - 2);
}

/// Whether the daemon's reader takes a line of this length.
bool fits(const std::string& line) {
    // An empty line would be dropped for being empty.
    std::istringstream stream(std::string(std::max<std::size_t>(line.size(), 1), 'x'));
    return !readConfigText(stream).empty();
}

/// What the daemon's own lookup makes of a key; nothing if it would leave what was there.
std::optional<std::string> takenBy(const Key& key, const std::string& text) {
    if (key.kind == Key::Kind::size) {
        int size = 0;
        UTILITIES::parseSizeVar(text, key.name, size);
        const bool hasValue = UTILITIES::findValue(text, key.name) != std::string::npos;
        return hasValue ? std::optional<std::string>(std::to_string(size)) : std::nullopt;
    }
    if (key.kind == Key::Kind::number) {
        // What is left alone is left at both.
        int first = 0;
        int second = 1;
        UTILITIES::readVar(text, key.name, first);
        UTILITIES::readVar(text, key.name, second);
        return first == second ? std::optional<std::string>(std::to_string(first)) : std::nullopt;
    }
    std::string word = " "; // which no word is
    UTILITIES::readVar(text, key.name, word);
    return word == " " ? std::nullopt : std::optional<std::string>(word);
}

const KeyUse* lookUp(const std::map<std::string, KeyUse>& uses, const std::string& key) {
    const auto found = uses.find(key);
    return found == uses.end() ? nullptr : &found->second;
}

} // namespace

const std::vector<Key>& allKeys() {
    using Kind = Key::Kind;
    static const std::vector<Key> keys = {
        {"logfile", Kind::path, false, false},
        {"logfile_max_number", Kind::number, false, false},
        {"logfile_max_size", Kind::size, false, false},
        {"uid", Kind::word, false, true},
        {"gid", Kind::word, false, true},
        {"usrdir", Kind::path, false, true},
        {"detectorID", Kind::word, true, false},
        {"remoteIP", Kind::word, true, true},
        {"source", Kind::path, true, true},
        {"target", Kind::path, true, true},
        {"minpause", Kind::number, true, false},
        {"interrun_pause", Kind::number, true, false},
    };
    return keys;
}

const Key* findKey(std::string_view name) {
    for (const Key& key : allKeys()) {
        if (key.name == name) {
            return &key;
        }
    }
    return nullptr;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view whiteSpace = " \t\n\v\f\r";
    text.remove_prefix(std::min(text.find_first_not_of(whiteSpace), text.size()));
    return text.substr(0, text.find_last_not_of(whiteSpace) + 1);
}

const KeyUse* ConfigBlock::find(const std::string& key) const {
    return lookUp(uses, key);
}

std::string ConfigBlock::valueOf(const std::string& key) const {
    const KeyUse* const use = find(key);
    return use != nullptr ? use->taken.value_or("") : "";
}

ConfigView::ConfigView(const std::string& file) {
    readLines(file);
    settingUses = findAll(false, wholeText, 0);
    readBlocks();
}

void ConfigView::readLines(const std::string& file) {
    std::istringstream stream(file);
    std::string line;
    for (int number = 1; std::getline(stream, line); ++number) {
        if (readingCut) {
            ++readingCut->ignored;
            continue;
        }
        if (!fits(line)) {
            readingCut = Cut{number, line.size(), 0};
            continue;
        }
        if (line.find('\0') != std::string::npos && firstNulLine == 0) {
            firstNulLine = number;
        }
        if (const std::optional<std::string> kept = keptText(line)) {
            keptLines.push_back({number, *kept, wholeText.size() + 1});
            wholeText += "\n" + *kept + " ";
        }
    }
}

void ConfigView::readBlocks() {
    Pause minPause;
    Pause interrunPause;
    const auto read = [](const ConfigBlock& block, const char* key, Pause& pause) {
        // What a block does not say is that of the one before.
        const KeyUse* const use = block.find(key);
        if (use != nullptr && use->taken) {
            pause = {std::stoi(*use->taken), use->line, block.id};
        }
        return pause;
    };
    for (const std::string& piece : cutDetectorBlocks(wholeText)) {
        ConfigBlock block;
        // The blocks join without a gap, from the first one to the end of the text.
        block.begin = allBlocks.empty() ? wholeText.find(piece) : allBlocks.back().end;
        block.end = block.begin + piece.size();
        block.line = lineAt(block.begin);
        block.uses = findAll(true, piece, block.begin);
        block.id = block.valueOf("detectorID");
        block.minPause = read(block, "minpause", minPause);
        block.interrunPause = read(block, "interrun_pause", interrunPause);
        const auto [earlier, isNew] = served.try_emplace(block.id, allBlocks.size());
        if (!isNew) {
            allBlocks[earlier->second].served = false;
            earlier->second = allBlocks.size();
        }
        allBlocks.push_back(std::move(block));
    }
}

int ConfigView::lineAt(std::size_t offset) const {
    const auto behind = std::upper_bound(
        keptLines.begin(), keptLines.end(), offset,
        [](std::size_t place, const ConfigLine& line) { return place < line.offset; });
    return behind == keptLines.begin() ? 0 : std::prev(behind)->number;
}

const ConfigBlock* ConfigView::blockAt(std::size_t offset) const {
    const auto behind = std::upper_bound(
        allBlocks.begin(), allBlocks.end(), offset,
        [](std::size_t place, const ConfigBlock& block) { return place < block.begin; });
    return behind == allBlocks.begin() ? nullptr : &*std::prev(behind);
}

const ConfigBlock* ConfigView::servedBlock(const std::string& id) const {
    const auto found = served.find(id);
    return found == served.end() ? nullptr : &allBlocks[found->second];
}

const KeyUse* ConfigView::find(const std::string& settingKey) const {
    return lookUp(settingUses, settingKey);
}

std::map<std::string, KeyUse> ConfigView::findAll(bool ofDetector, const std::string& piece,
                                                  std::size_t begin) const {
    std::map<std::string, KeyUse> uses;
    const std::string haystack = "\n" + piece;
    for (const Key& key : allKeys()) {
        const std::size_t found = haystack.find("\n" + key.name + " ");
        if (key.ofDetector != ofDetector || found == std::string::npos) {
            continue;
        }
        KeyUse use;
        use.key = &key;
        // The line feed in front of the piece makes up for the one in front of the key.
        use.offset = begin + found;
        use.line = lineAt(use.offset);
        const std::size_t value = found + 1 + key.name.size();
        use.written = trimmed(haystack.substr(value, haystack.find('\n', value) - value));
        use.taken = takenBy(key, haystack);
        uses.emplace(key.name, std::move(use));
    }
    return uses;
}

} // namespace control
