// Where in a configuration file stands what the daemon takes from it.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace control {

/// The keys that the daemon looks up: for itself, and in each detector's block.
const std::vector<std::string>& settingKeys();
const std::vector<std::string>& detectorKeys();
bool isSettingKey(std::string_view word);
bool isDetectorKey(std::string_view word);

/// A line that the daemon keeps: neither empty nor a comment.
struct ConfigLine {
    int number = 0;         // in the file, from 1
    std::string text;       // without leading white space, and up to the first NUL
    std::size_t offset = 0; // of the text's first character in the daemon's text
};

/// One key in the part of the text that it is looked up in.
struct KeyUse {
    std::string key;
    int line = 0;
    std::size_t offset = 0; // of the key in the daemon's text
    std::string rest;       // of its line, behind the key and the spaces that follow
    std::string scope;      // the rest and what follows, as far as the daemon may look for a value
    bool hasValue = false;  // for the daemon's lookup, which sees blanks but no other white space
};

/// The stretch of the daemon's text that makes one detector.
struct ConfigBlock {
    std::size_t begin = 0; // in the daemon's text; of the "d" of "detectorID "
    std::size_t end = 0;   // behind its last character
    std::string text;
    int line = 0;                       // that it begins in
    bool insideLine = false;            // begins behind other text of its line
    std::string id;                     // may be empty
    bool served = true;                 // false if a later block has the same ID
    std::map<std::string, KeyUse> uses; // the detector's keys that are in it
};

/// Where a value of a detector comes from.
struct Origin {
    enum class Kind { own, inherited, byDefault };
    Kind kind = Kind::byDefault;
    int line = 0;         // of the key; 0 by default
    std::string detector; // whose block it stands in; not by default
};

/// The pauses of one block, and where they come from.
struct BlockPauses {
    int minPause = 0;
    int interrunPause = 0;
    Origin minPauseOrigin;
    Origin interrunPauseOrigin;
};

/// The configuration file as its author sees it (lines with numbers) beside what the daemon makes
/// of it (one text, blocks), each place of the one known in the other. Reads and cuts with the
/// daemon's own code. Keeps copies of everything.
class ConfigView {
public:
    explicit ConfigView(const std::string& file);

    /// What the daemon reduces the file to.
    const std::string& text() const { return wholeText; }

    /// The lines that are kept, in their order.
    const std::vector<ConfigLine>& lines() const { return keptLines; }

    /// The line, as it stands, that is too long and ends the reading; and all lines behind it.
    struct Cut {
        int line = 0;
        std::size_t length = 0;
        std::vector<std::string> ignored;
    };
    const std::optional<Cut>& cut() const { return readingCut; }

    /// The lines that are read and hold a NUL byte: how many, and the number of the first (or 0).
    std::size_t linesWithNul() const { return nulLines; }
    int firstNul() const { return firstNulLine; }

    /// The number of the line with a place of the daemon's text in it.
    int lineAt(std::size_t offset) const;

    /// All blocks, in their order.
    const std::vector<ConfigBlock>& blocks() const { return allBlocks; }

    /// The pauses of each block, in the blocks' order.
    const std::vector<BlockPauses>& pauses() const { return allPauses; }

    /// The block that a place of the text is in; nothing before the first one.
    const ConfigBlock* blockAt(std::size_t offset) const;

    /// Where the daemon finds a setting of its own, or a key of a block. Null if it does not.
    const KeyUse* find(const std::string& settingKey) const;
    static const KeyUse* find(const std::string& detectorKey, const ConfigBlock& block);

private:
    void readLines(const std::string& file);
    void readBlocks();
    void readPauses();
    std::map<std::string, KeyUse> findAll(const std::vector<std::string>& keys,
                                          const std::string& piece, std::size_t begin) const;

    std::string wholeText;
    std::vector<ConfigLine> keptLines;
    std::optional<Cut> readingCut;
    std::size_t nulLines = 0;
    int firstNulLine = 0;
    std::vector<ConfigBlock> allBlocks;
    std::vector<BlockPauses> allPauses;
    std::map<std::string, KeyUse> settingUses;
};

/// The value of a whole number as the daemon reads it: nothing if it would leave what was there.
std::optional<int> readNumber(const std::string& scope);

} // namespace control
