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
    std::string value; // what is to stand behind it, for people

    bool isNumber() const { return kind == Kind::number || kind == Kind::size; }
};

const std::vector<Key>& allKeys();

/// A line that the daemon keeps: neither empty nor a comment.
struct ConfigLine {
    int number = 0;         // in the file, from 1
    std::string text;       // without leading white space, and up to the first NUL
    std::size_t offset = 0; // of the text's first character in the daemon's text
};

/// What the daemon takes from a key in the part of the text that it is looked up in.
struct KeyUse {
    int line = 0;
    std::size_t offset = 0;           // of the key in the daemon's text
    std::optional<std::string> taken; // nothing if the daemon goes on as if the key were not there
};

/// Those that the daemon finds, by their names.
struct KeyUses : std::map<std::string, KeyUse> {
    /// Null if it does not find this one.
    const KeyUse* lookUp(const std::string& key) const;

    /// What it takes there; empty if it takes nothing.
    std::string valueOf(const std::string& key) const;
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
    int line = 0;          // that it begins in
    std::string id;        // may be empty
    bool served = true;    // false if a later block has the same ID
    KeyUses uses;
    std::map<std::string, Pause> pauses; // by their keys; what it does not say is the earlier one's
};

/// The configuration file as its author sees it (lines with numbers) beside what the daemon makes
/// of it (one text, blocks), each place of the one known in the other. Reads and cuts with the
/// daemon's own code. Keeps copies of everything.
struct ConfigView {
    explicit ConfigView(const std::string& file);

    std::string text; // what the daemon reduces the file to
    std::vector<ConfigLine> lines;
    KeyUses settings;
    std::vector<ConfigBlock> blocks;

    int cutLine = 0; // the line that is too long and ends the reading; 0 if none does
    std::size_t cutLength = 0;
    int ignoredLines = 0; // behind it
    int nulLine = 0;      // the first that is read and holds a NUL byte; 0 if none does

    /// The block that a place of the text is in; null before the first one.
    const ConfigBlock* blockAt(std::size_t offset) const;

    /// The block of a detector that is served; null if there is none.
    const ConfigBlock* servedBlock(const std::string& id) const;

private:
    void readBlocks();
    int lineAt(std::size_t offset) const;
    KeyUses findAll(bool ofDetector, const std::string& piece, std::size_t begin) const;

    std::map<std::string, std::size_t> served; // index of the block by ID
};

/// A text without white space around it.
std::string_view trimmed(std::string_view text);

} // namespace control
