// Where in a configuration file stands what the daemon takes from it.
#include "control/check/config_view.h"

#include "config/config_text.h"
#include "utilities/text.h"

#include <algorithm>
#include <map>
#include <sstream>

namespace control {

namespace {

bool contains(const std::vector<std::string>& words, std::string_view word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

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

} // namespace

const std::vector<std::string>& settingKeys() {
    static const std::vector<std::string> keys = {
        "logfile", "logfile_max_number", "logfile_max_size", "uid", "gid", "usrdir"};
    return keys;
}

const std::vector<std::string>& detectorKeys() {
    static const std::vector<std::string> keys = {"detectorID", "remoteIP", "source",
                                                  "target",     "minpause", "interrun_pause"};
    return keys;
}

bool isSettingKey(std::string_view word) {
    return contains(settingKeys(), word);
}

bool isDetectorKey(std::string_view word) {
    return contains(detectorKeys(), word);
}

std::optional<int> readNumber(const std::string& scope) {
    // What is left alone is left at both.
    int first = 0;
    int second = 1;
    UTILITIES::readVar("x " + scope, "x", first);
    UTILITIES::readVar("x " + scope, "x", second);
    return first == second ? std::optional<int>(first) : std::nullopt;
}

ConfigView::ConfigView(const std::string& file) {
    readLines(file);
    settingUses = findAll(settingKeys(), wholeText, 0);
    readBlocks();
    readPauses();
}

void ConfigView::readLines(const std::string& file) {
    std::istringstream stream(file);
    std::string line;
    for (int number = 1; std::getline(stream, line); ++number) {
        if (readingCut) {
            readingCut->ignored.push_back(line);
            continue;
        }
        if (!fits(line)) {
            readingCut = Cut{number, line.size(), {}};
            continue;
        }
        if (line.find('\0') != std::string::npos && nulLines++ == 0) {
            firstNulLine = number;
        }
        if (const std::optional<std::string> kept = keptText(line)) {
            keptLines.push_back({number, *kept, wholeText.size() + 1});
            wholeText += "\n" + *kept + " ";
        }
    }
}

void ConfigView::readBlocks() {
    std::map<std::string, std::size_t> last;
    for (const std::string& block : cutDetectorBlocks(wholeText)) {
        ConfigBlock found;
        // The blocks join without a gap, from the first one to the end of the text.
        found.begin = allBlocks.empty() ? wholeText.find(block) : allBlocks.back().end;
        found.end = found.begin + block.size();
        found.text = block;
        found.line = lineAt(found.begin);
        found.insideLine = found.begin > 0 && wholeText[found.begin - 1] != '\n';
        UTILITIES::readVar(block, "detectorID", found.id);
        found.uses = findAll(detectorKeys(), block, found.begin);
        const auto [earlier, isNew] = last.try_emplace(found.id, allBlocks.size());
        if (!isNew) {
            allBlocks[earlier->second].served = false;
            earlier->second = allBlocks.size();
        }
        allBlocks.push_back(std::move(found));
    }
}

void ConfigView::readPauses() {
    BlockPauses pauses;
    const auto read = [](const ConfigBlock& block, const char* key, int& value, Origin& origin) {
        if (origin.kind == Origin::Kind::own) {
            origin.kind = Origin::Kind::inherited;
        }
        const KeyUse* const use = find(key, block);
        const std::optional<int> number =
            use != nullptr && use->hasValue ? readNumber(use->scope) : std::nullopt;
        if (number) {
            value = *number;
            origin = {Origin::Kind::own, use->line, block.id};
        }
    };
    for (const ConfigBlock& block : allBlocks) {
        read(block, "minpause", pauses.minPause, pauses.minPauseOrigin);
        read(block, "interrun_pause", pauses.interrunPause, pauses.interrunPauseOrigin);
        allPauses.push_back(pauses);
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

const KeyUse* ConfigView::find(const std::string& settingKey) const {
    const auto found = settingUses.find(settingKey);
    return found == settingUses.end() ? nullptr : &found->second;
}

const KeyUse* ConfigView::find(const std::string& detectorKey, const ConfigBlock& block) {
    const auto found = block.uses.find(detectorKey);
    return found == block.uses.end() ? nullptr : &found->second;
}

std::map<std::string, KeyUse> ConfigView::findAll(const std::vector<std::string>& keys,
                                                  const std::string& piece,
                                                  std::size_t begin) const {
    // The value of a key is the next word, at the furthest in the next line.
    constexpr std::size_t twoLines = 2048;
    std::map<std::string, KeyUse> uses;
    const std::string haystack = "\n" + piece;
    for (const std::string& key : keys) {
        const std::size_t found = haystack.find("\n" + key + " ");
        if (found == std::string::npos) {
            continue;
        }
        KeyUse use;
        use.key = key;
        // The line feed in front of the piece makes up for the one in front of the key.
        use.offset = begin + found;
        use.line = lineAt(use.offset);
        const std::size_t value = UTILITIES::findValue(haystack, key);
        use.hasValue = value != std::string::npos;
        if (use.hasValue) {
            use.scope = haystack.substr(value, twoLines);
            use.rest = use.scope.substr(0, use.scope.find('\n'));
        }
        uses.emplace(key, std::move(use));
    }
    return uses;
}

} // namespace control
