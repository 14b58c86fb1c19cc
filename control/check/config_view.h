// Where in a configuration file stands what the daemon takes from it.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace control {

/// A key that the daemon looks up: for itself, or in each detector's block.
struct Key {
    enum class Kind { word, path, number, size };

    std::string name;
    Kind kind;
    bool ofDetector;
    bool reachesShell; // its value becomes part of a shell's command line
};

const std::vector<Key>& allKeys();

/// The key of this name; null if there is none.
const Key* findKey(std::string_view name);

/// A line that the daemon keeps: neither empty nor a comment.
struct ConfigLine {
    int number = 0;         // in the file, from 1
    std::string text;       // without leading white space, and up to the first NUL
    std::size_t offset = 0; // of the text's first character in the daemon's text
};

/// One key in the part of the text that it is looked up in: what its author wrote, and what the
/// daemon takes from there.
struct KeyUse {
    const Key* key = nullptr;
    int line = 0;
    std::size_t offset = 0;           // of the key in the daemon's text
    std::string written;              // the rest of its line, without white space around it
    std::optional<std::string> taken; // nothing if the daemon goes on as if the key were not there
};

/// A pause of a detector and where it comes from.
struct Pause {
    int milliseconds = 0;
    int line = 0;         // 0 if it is the default
    std::string detector; // whose block it stands in, if any
};

/// The stretch of the daemon's text that makes one detector.
struct ConfigBlock {
    std::size_t begin = 0; // in the daemon's text; of the "d" of "detectorID "
    std::size_t end = 0;   // behind its last character
    int line = 0;          // that it begins in
    std::string id;        // may be empty
    bool served = true;    // false if a later block has the same ID
    std::map<std::string, KeyUse> uses;
    Pause minPause;
    Pause interrunPause;

    /// Where the daemon finds a key in it; null if it does not.
    const KeyUse* find(const std::string& key) const;

    /// The value that it finds there; empty if it finds none.
    std::string valueOf(const std::string& key) const;
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

    /// The line that is too long and ends the reading, its length, and how many lines follow.
    struct Cut {
        int line = 0;
        std::size_t length = 0;
        int ignored = 0;
    };
    const std::optional<Cut>& cut() const { return readingCut; }

    /// The number of the first line that is read and holds a NUL byte; 0 if none does.
    int firstNul() const { return firstNulLine; }

    /// All blocks, in their order.
    const std::vector<ConfigBlock>& blocks() const { return allBlocks; }

    /// The block that a place of the text is in; nothing before the first one.
    const ConfigBlock* blockAt(std::size_t offset) const;

    /// The block of a detector that is served; null if there is none.
    const ConfigBlock* servedBlock(const std::string& id) const;

    /// Where the daemon finds a setting of its own. Null if it does not.
    const KeyUse* find(const std::string& settingKey) const;

private:
    void readLines(const std::string& file);
    void readBlocks();
    int lineAt(std::size_t offset) const;
    std::map<std::string, KeyUse> findAll(bool ofDetector, const std::string& piece,
                                          std::size_t begin) const;

    std::string wholeText;
    std::vector<ConfigLine> keptLines;
    std::optional<Cut> readingCut;
    int firstNulLine = 0;
    std::vector<ConfigBlock> allBlocks;
    std::map<std::string, std::size_t> served; // by ID
    std::map<std::string, KeyUse> settingUses;
};

/// A text without white space around it.
std::string_view trimmed(std::string_view text);

} // namespace control
