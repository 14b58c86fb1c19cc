// What is wrong with a configuration that the daemon reads without a word.
#include "control/check/config_findings.h"

#include "control/check/targets.h"
#include "utilities/text.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <map>
#include <set>
#include <utility>

#include <arpa/inet.h>

namespace control {

namespace {

constexpr std::string_view blockKey = "detectorID";
constexpr std::string_view blockStart = "detectorID ";
constexpr std::string_view whiteSpace = " \t\n\v\f\r";

/// More than these say nothing new.
constexpr std::size_t mostOfOneCode = 50;

std::string firstWord(std::string_view text) {
    return std::string(UTILITIES::takeWord(text));
}

bool isBlank(std::string_view text) {
    return text.find_first_not_of(whiteSpace) == std::string_view::npos;
}

bool isNumberKey(std::string_view key) {
    return key == "logfile_max_number" || key == "minpause" || key == "interrun_pause";
}

bool isPathKey(std::string_view key) {
    return key == "logfile" || key == "usrdir" || key == "source" || key == "target";
}

/// Whether the daemon puts the key's value into a shell's command line.
bool reachesShell(std::string_view key) {
    return key == "uid" || key == "gid" || key == "usrdir" || key == "remoteIP" ||
           key == "source" || key == "target";
}

/// The changes of one letter that make one word of another, at most `limit` + 1.
std::size_t distance(std::string_view one, std::string_view other) {
    std::vector<std::size_t> row(other.size() + 1);
    for (std::size_t i = 0; i < row.size(); ++i) {
        row[i] = i;
    }
    for (std::size_t i = 1; i <= one.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= other.size(); ++j) {
            const std::size_t changed = diagonal + (one[i - 1] == other[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char character) {
        return static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    });
    return lower;
}

/// The longest known key that a word begins with; empty if there is none.
std::string keyThatBegins(std::string_view word) {
    std::string longest;
    for (const auto* const keys : {&settingKeys(), &detectorKeys()}) {
        for (const std::string& key : *keys) {
            if (key.size() > longest.size() && word.substr(0, key.size()) == key) {
                longest = key;
            }
        }
    }
    return longest;
}

std::string join(const std::vector<std::string>& words) {
    std::string joined;
    for (const std::string& word : words) {
        joined += (joined.empty() ? "" : ", ") + word;
    }
    return joined;
}

/// What the daemon goes by when it does not see the key.
std::string withoutKey(std::string_view key) {
    if (key == "logfile") {
        return "there is no log (/dev/null)";
    }
    if (key == "logfile_max_size") {
        return "the log is rotated above 10 MiB";
    }
    if (key == "logfile_max_number") {
        return "archives up to .10 are kept";
    }
    if (key == "uid" || key == "gid" || key == "usrdir") {
        return "none is set";
    }
    if (key == blockKey) {
        return "no detector begins here, and the lines below belong to the one before";
    }
    if (key == "remoteIP") {
        return "the detector has no address";
    }
    if (key == "source") {
        return "the whole share is served";
    }
    if (key == "target") {
        return "the files go into the root directory";
    }
    return "the pause of the block before counts, or 0";
}

/// An IPv6 address in the form that a URL takes. The shell finds no file by this pattern, and so
/// leaves it alone.
bool isBracketedAddress(const std::string& value) {
    in6_addr parsed = {};
    return value.size() > 2 && value.front() == '[' && value.back() == ']' &&
           inet_pton(AF_INET6, value.substr(1, value.size() - 2).c_str(), &parsed) == 1;
}

/// Gathers findings for findInConfiguration.
class Finder {
public:
    Finder(const ConfigView& configView, const Configuration& startConfiguration,
           const std::vector<std::string>& options)
        : view(configView), start(startConfiguration), startOptions(options) {
        for (const ConfigBlock& block : view.blocks()) {
            if (block.served) {
                served[block.id] = &block;
            }
        }
        for (std::size_t i = 0; i + 1 < startOptions.size(); i += 2) {
            const std::vector<std::string> fields = UTILITIES::splitWords(startOptions[i + 1], ':');
            if (fields.size() == 3) {
                repointed.insert(fields[0]);
            }
        }
    }

    Findings find() {
        lookAtCut();
        lookAtNulBytes();
        lookAtLines();
        lookAtBlocks();
        for (const std::string& key : settingKeys()) {
            lookAtUse(view.find(key), key);
        }
        about = Finding::About::startOptions;
        lookAtStartOptions();
        about = Finding::About::configuration;
        lookAtLog();
        lookAtUserDirectory();
        lookAtTargets();
        tellOfTheRest();
        std::stable_sort(findings.begin(), findings.end(),
                         [](const Finding& one, const Finding& other) {
                             return order(one.line) < order(other.line);
                         });
        return std::move(findings);
    }

private:
    static unsigned order(int line) { return line == 0 ? UINT_MAX : static_cast<unsigned>(line); }

    void add(Severity severity, const char* code, int line, const std::string& subject,
             const std::string& text, const std::string& advice) {
        if (++told[code] <= mostOfOneCode) {
            findings.push_back({severity, code, line, subject, text, advice, about});
        }
    }
    void error(const char* code, int line, const std::string& subject, const std::string& text,
               const std::string& advice) {
        add(Severity::error, code, line, subject, text, advice);
    }
    void fatal(const char* code, int line, const std::string& subject, const std::string& text,
               const std::string& advice) {
        add(Severity::fatal, code, line, subject, text, advice);
    }
    void warning(const char* code, int line, const std::string& subject, const std::string& text,
                 const std::string& advice) {
        add(Severity::warning, code, line, subject, text, advice);
    }

    void tellOfTheRest();
    void lookAtCut();
    void lookAtNulBytes();
    void lookAtLines();
    void lookAtLine(const ConfigLine& line);
    void lookAtStrangeKey(const ConfigLine& line, const std::string& word);
    void lookAtBlocks();
    void lookAtMissing(const ConfigBlock& block);
    void lookAtUse(const KeyUse* use, const std::string& key);
    void lookAtWord(const KeyUse& use);
    void lookAtShellWord(const std::string& key, int line, const std::string& value);
    void lookAtAddress(int line, const std::string& address);
    void lookAtNumber(const KeyUse& use);
    void lookAtSize(const KeyUse& use);
    void lookBehindValue(const KeyUse& use, std::string_view behind);
    void lookAtPauses(const ConfigBlock& block, const BlockPauses& pauses);
    void lookAtStartOptions();
    void lookAtLog();
    void lookAtUserDirectory();
    void lookAtTargets();
    int lineOf(const std::string& settingKey) const;
    int lineOfTarget(const std::string& detector) const;
    bool isRepointed(const std::string& detector) const { return repointed.count(detector) > 0; }

    const ConfigView& view;
    const Configuration& start;
    const std::vector<std::string>& startOptions;
    Findings findings;
    Finding::About about = Finding::About::configuration; // what is being looked at
    std::map<std::string, const ConfigBlock*> served;     // the block of each detector
    std::set<std::string> repointed;                      // detectors that a start option is about
    std::map<std::string, std::size_t> told;              // how often each code was found
};

void Finder::tellOfTheRest() {
    const std::map<std::string, std::size_t> all = told;
    for (const auto& [code, times] : all) {
        if (times > mostOfOneCode) {
            error("and-more", 0, code,
                  std::to_string(times - mostOfOneCode) + " more mistakes of the kind \"" + code +
                      "\" are not told one by one",
                  "look whether this is the right file");
        }
    }
}

void Finder::lookAtCut() {
    if (!view.cut()) {
        return;
    }
    const ConfigView::Cut& cut = *view.cut();
    std::vector<std::string> keys;
    std::size_t detectors = 0;
    for (const std::string& line : cut.ignored) {
        const std::string word = firstWord(line);
        if (word == blockKey) {
            ++detectors;
        } else if ((isSettingKey(word) || isDetectorKey(word)) &&
                   std::find(keys.begin(), keys.end(), word) == keys.end()) {
            keys.push_back(word);
        }
    }
    std::string lost = "nothing else stands there";
    if (detectors > 0 || !keys.empty()) {
        lost = std::to_string(detectors) + " detectorID " + (detectors == 1 ? "line" : "lines");
        lost += keys.empty() ? "" : " and the keys " + join(keys);
        lost += " are lost";
    }
    error("line-too-long", cut.line, "line",
          "the line has " + std::to_string(cut.length) +
              " characters, and the daemon stops reading at one of 1,024 or more: it and the " +
              std::to_string(cut.ignored.size()) + " lines below are ignored; " + lost,
          "shorten the line to 1,023 characters or less, also if it is a comment");
}

void Finder::lookAtNulBytes() {
    if (view.firstNul() > 0) {
        error("nul-byte", view.firstNul(), "line",
              "a NUL byte stands in " + std::to_string(view.linesWithNul()) +
                  (view.linesWithNul() == 1 ? " line" : " lines, this one first") +
                  ": what follows it in the line is ignored",
              "save the file as plain text (UTF-8 or ASCII)");
    }
}

void Finder::lookAtLines() {
    int carriageReturns = 0;
    int first = 0;
    for (const ConfigLine& line : view.lines()) {
        lookAtLine(line);
        if (!line.text.empty() && line.text.back() == '\r') {
            first = carriageReturns++ == 0 ? line.number : first;
        }
    }
    if (carriageReturns > 0) {
        warning("carriage-return", first, "line",
                std::to_string(carriageReturns) +
                    (carriageReturns == 1 ? " line ends" : " lines end") +
                    " in a carriage return, this one first: it is no part of a value, but a key "
                    "that has none does not stand alone",
                "give the file the line ends of Linux, for instance with: sed -i 's/\\r$//'");
    }
}

void Finder::lookAtLine(const ConfigLine& line) {
    // A block may begin anywhere in a line, and several may.
    const std::string withEnd = line.text + " ";
    const std::size_t inside = withEnd.find(blockStart, 1);
    if (inside != std::string::npos) {
        error("block-inside-line", line.number, std::string(blockKey),
              "\"detectorID \" stands inside the line, and a new detector begins there: what "
              "follows no longer belongs to the one before",
              "take the word out, also if it is meant as a comment");
    }

    const std::string word = firstWord(line.text);
    const bool isKnown = isSettingKey(word) || isDetectorKey(word);
    if (!isKnown || withEnd[word.size()] != ' ') {
        if (inside == std::string::npos || isKnown) {
            lookAtStrangeKey(line, word);
        }
        return;
    }

    // The key is seen. Is it this one that counts?
    const KeyUse* used = nullptr;
    std::string where;
    if (isSettingKey(word)) {
        used = view.find(word);
    } else if (const ConfigBlock* const block = view.blockAt(line.offset)) {
        used = ConfigView::find(word, *block);
        where = " of detector " + inQuotes(block->id);
    } else {
        error("key-before-first-block", line.number, word,
              inQuotes(word) +
                  " stands before the first detectorID line and belongs to no detector",
              "move it below the detectorID line of its detector");
        return;
    }
    if (used != nullptr && used->offset != line.offset) {
        const bool hidden = !used->hasValue;
        error("repeated-key", line.number, word,
              inQuotes(word) + where + " is ignored here, since it stands in line " +
                  std::to_string(used->line) + " already" +
                  (hidden ? ", where it has no value" : ""),
              "keep one of the two: the first counts");
    }
}

void Finder::lookAtStrangeKey(const ConfigLine& line, const std::string& word) {
    const std::string key = keyThatBegins(word);
    const std::string behind = line.text.substr(key.size());
    const std::string advice =
        "write the key, one or more spaces, and the value: \"" + key + " VALUE\"";
    const auto reject = [&](const char* code, const std::string& what) {
        error(code, line.number, key,
              inQuotes(key) + " is followed by " + what +
                  ", so that the daemon does not see it: " + withoutKey(key),
              advice);
    };
    if (!key.empty() && isBlank(behind)) {
        reject("key-without-value", "nothing but white space");
        return;
    }
    if (!key.empty() && behind.front() == '\t') {
        reject("key-followed-by-tab", "a tab");
        return;
    }
    if (!key.empty() && (behind.front() == '=' || behind.front() == ':')) {
        reject("key-followed-by-equals", inQuotes(behind.substr(0, 1)));
        return;
    }
    const bool goesOn =
        !behind.empty() &&
        (std::isalnum(static_cast<unsigned char>(behind.front())) != 0 || behind.front() == '_');
    if (!key.empty() && !goesOn) {
        reject("key-followed-by-other", "something else than a space");
        return;
    }
    if (word.substr(0, 3) == "\xef\xbb\xbf") {
        error("byte-order-mark", line.number, word.substr(3),
              "the file begins with a byte order mark, which hides the key behind it",
              "save the file as plain text without it");
        return;
    }
    const std::string near = nearestKey(word);
    error("unknown-key", line.number, word, inQuotes(word) + " is no key, and the line is ignored",
          near.empty() ? "the keys are " + join(settingKeys()) + "; " + join(detectorKeys()) +
                             " (a comment begins with \"#\")"
                       : "perhaps \"" + near + "\" is meant");
}

void Finder::lookAtBlocks() {
    for (std::size_t i = 0; i < view.blocks().size(); ++i) {
        const ConfigBlock& block = view.blocks()[i];
        if (!block.served) {
            error("repeated-detector", block.line, block.id,
                  "detector " + inQuotes(block.id) + " is defined again in line " +
                      std::to_string(served.at(block.id)->line) +
                      ", and only its last definition is served: this one is ignored",
                  "give each detector an ID of its own, or keep one definition");
        }
        for (const std::string& key : detectorKeys()) {
            lookAtUse(ConfigView::find(key, block), key);
        }
        if (block.served) {
            lookAtMissing(block);
            lookAtPauses(block, view.pauses()[i]);
        }
    }
    if (view.blocks().empty()) {
        fatal("no-detector", 0, std::string(blockKey),
              "the file defines no detector, so that the daemon ends as soon as it has started",
              "add a block that begins with a \"detectorID ID\" line for each detector");
    }
}

void Finder::lookAtMissing(const ConfigBlock& block) {
    const auto valueOf = [&block](const char* key, int& line) {
        const KeyUse* const use = ConfigView::find(key, block);
        std::string value;
        UTILITIES::readVar(block.text, key, value);
        line = use != nullptr ? use->line : block.line;
        return value;
    };
    int line = 0;
    const std::string detector = "detector " + inQuotes(block.id);
    if (block.id.empty()) {
        error("missing-detector-id", block.line, std::string(blockKey),
              "the detector has no ID: its lines in the log begin with nothing, and \"-d\" can't "
              "name it",
              "write its ID behind \"detectorID \"");
    }
    if (valueOf("remoteIP", line).empty()) {
        error("missing-remote-address", line, block.id,
              detector + " has no remoteIP, so that none of its files is ever found",
              "add \"remoteIP ADDRESS\" to its block");
    }
    if (valueOf("source", line).empty() && !isRepointed(block.id)) {
        warning("missing-source", line, block.id,
                detector + " has no source, so that its whole share is served",
                "add \"source DIRECTORY\" to its block; \"source /\" if the whole share is meant");
    }
    if (valueOf("target", line).empty() && !isRepointed(block.id)) {
        error("missing-target", line, block.id,
              detector + " has no target, so that its files go into the root directory of this "
                         "host",
              "add \"target DIRECTORY\" to its block");
    }
}

/// Looks at the value that counts for a key.
void Finder::lookAtUse(const KeyUse* use, const std::string& key) {
    if (use == nullptr) {
        return;
    }
    if (!use->hasValue) {
        // What is told of a block that lacks these says enough.
        if (key != "remoteIP" && key != "source" && key != "target" && key != blockKey) {
            error("key-without-value", use->line, key,
                  inQuotes(key) + " has no value: " + withoutKey(key),
                  "write a value behind it, or take the line out");
        }
        return;
    }
    if (key == "logfile_max_size") {
        lookAtSize(*use);
        return;
    }
    if (isBlank(use->rest)) {
        const std::string taken = firstWord(use->scope);
        if (taken.empty()) {
            error("key-without-value", use->line, key,
                  inQuotes(key) + " is followed by nothing but white space: " + withoutKey(key),
                  "write a value behind it, or take the line out");
        } else {
            error("value-from-next-line", use->line, key,
                  inQuotes(key) +
                      " is followed by a space and other white space only, so that it "
                      "gets the first word of the next line, " +
                      inQuotes(taken),
                  "write a value behind it, or take the line out");
        }
        return;
    }
    if (use->rest.front() == '=' || use->rest.front() == ':') {
        error("value-begins-with-equals", use->line, key,
              "the value of " + inQuotes(key) + " is " + inQuotes(firstWord(use->rest)) +
                  ", with the sign in front",
              "leave the sign out: \"" + key + " VALUE\"");
        return;
    }
    if (isNumberKey(key)) {
        lookAtNumber(*use);
    } else {
        lookAtWord(*use);
    }
}

void Finder::lookAtWord(const KeyUse& use) {
    std::string_view behind = use.rest;
    const std::string value(UTILITIES::takeWord(behind));
    lookBehindValue(use, behind);

    const bool isQuoted = value.front() == '"' || value.front() == '\'';
    if (isQuoted) {
        error("quoted-value", use.line, use.key,
              "the value of " + inQuotes(use.key) + " is " + value +
                  ": quotation marks are part of a value, and keep no blanks together",
              "leave the quotation marks out; no value can hold a blank");
        return;
    }
    if (use.key == "remoteIP" && isBracketedAddress(value)) {
        return;
    }
    if (reachesShell(use.key)) {
        lookAtShellWord(use.key, use.line, value);
    }
    if (use.key == "remoteIP") {
        lookAtAddress(use.line, value);
    }
    if (use.key == "logfile" && value.front() != '/') {
        error("relative-log", use.line, use.key,
              "the log " + inQuotes(value) +
                  " has no \"/\" in front: it is opened in the directory of whoever starts the "
                  "daemon, and from then on looked for in the root directory",
              "write the whole path of the log");
    }
    if (use.key == "target" && value.front() != '/') {
        error("relative-target", use.line, use.key,
              "the target " + inQuotes(value) +
                  " has no \"/\" in front, so that it lies in the daemon's directory, which is "
                  "the root directory",
              "write the whole path of the target");
    }
}

void Finder::lookAtShellWord(const std::string& key, int line, const std::string& value) {
    std::string rest = value;
    if (key == "usrdir") {
        // The first of each is replaced before the shell sees it.
        for (const char* const name : {"$UID", "$GID"}) {
            const std::size_t at = rest.find(name);
            if (at != std::string::npos) {
                rest.erase(at, 4);
            }
            if (at != std::string::npos && rest.find(name) != std::string::npos) {
                error("repeated-variable", line, key,
                      inQuotes(name) + " stands in usrdir twice, and only the first is replaced",
                      "use it once");
                return;
            }
        }
        if (rest.empty()) {
            return;
        }
    }
    if (!isPlainWord(rest)) {
        error("shell-characters", line, key,
              "the value of " + inQuotes(key) + ", " + inQuotes(value) +
                  ", has characters that mean something to the shell, to which the daemon passes "
                  "it as it stands",
              "use letters, digits and / . _ - + : @ % , only");
    }
}

void Finder::lookAtAddress(int line, const std::string& address) {
    const bool onlyNumbers = address.find_first_not_of("0123456789.") == std::string::npos;
    in_addr parsed = {};
    std::string what;
    if (onlyNumbers && inet_pton(AF_INET, address.c_str(), &parsed) != 1) {
        what = "is no address of four numbers up to 255";
    } else if (address.find_first_of("/@") != std::string::npos) {
        what = "is more than an address or a host's name";
    } else if (address.find(':') != std::string::npos) {
        what = "has a colon: the daemon adds the port 49371 itself";
    }
    if (!what.empty()) {
        error("bad-remote-address", line, "remoteIP", "remoteIP " + inQuotes(address) + " " + what,
              "write the address or the name of the detector alone");
    }
}

void Finder::lookAtNumber(const KeyUse& use) {
    std::string_view behind = use.rest;
    const std::string word(UTILITIES::takeWord(behind));
    const bool isPause = use.key != "logfile_max_number";
    const bool hasSign = word.front() == '-' || word.front() == '+';
    const std::size_t digits = hasSign ? 1 : 0;
    const std::size_t end = std::min(word.find_first_not_of("0123456789", digits), word.size());
    const std::string tail = word.substr(end);
    const std::string what = inQuotes(use.key) + " has the value " + inQuotes(word);

    const std::optional<int> number = readNumber(use.scope);
    if (end == digits) {
        error("not-a-number", use.line, use.key,
              what + ", which is no number: " + withoutKey(use.key),
              isPause ? "write a number of milliseconds" : "write a number");
        return;
    }
    if (!number) {
        error("number-too-large", use.line, use.key,
              what + ", which is beyond " + std::to_string(INT_MAX) + ": " + withoutKey(use.key),
              "write a smaller number");
        return;
    }
    if (!tail.empty() && tail.front() != '#') {
        const bool harmless = isPause && tail == "ms";
        add(harmless ? Severity::warning : Severity::error, "number-with-tail", use.line, use.key,
            what + ", of which the daemon takes " + std::to_string(*number) +
                (isPause ? " milliseconds" : ""),
            isPause ? "write a whole number of milliseconds, without a unit"
                    : "write a whole number alone");
    } else {
        lookBehindValue(use, behind);
    }
    if (isPause && *number < 0) {
        error("negative-pause", use.line, use.key, what + ", and the daemon does not pause at all",
              "write a number of milliseconds from 0 on");
    }
    if (!isPause && *number < 0) {
        warning("negative-number", use.line, use.key,
                what + ", which counts as 0: one archive, .0, is kept",
                "write the highest number of an archive");
    }
    constexpr int manyArchives = 1000;
    if (!isPause && *number > manyArchives) {
        warning("many-archives", use.line, use.key,
                what + ": each rotation renames so many files, and everything waits for it",
                "write a number up to " + std::to_string(manyArchives));
    }
}

void Finder::lookAtSize(const KeyUse& use) {
    // "+ 512 KiB more": a sign, digits and one letter, with spaces (and nothing else) in between.
    std::string_view rest = use.rest;
    const auto skipSpaces = [&rest] {
        rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    };
    bool isNegative = false;
    if (rest.front() == '+' || rest.front() == '-') {
        isNegative = rest.front() == '-';
        rest.remove_prefix(1);
        skipSpaces();
    }
    const std::string digits(
        rest.substr(0, std::min(rest.find_first_not_of("0123456789"), rest.size())));
    rest.remove_prefix(digits.size());
    skipSpaces();

    int size = 0;
    UTILITIES::parseSizeVar(view.text(), use.key, size);
    const std::string value = use.rest.substr(0, use.rest.find_last_not_of(whiteSpace) + 1);
    const std::string what = inQuotes(use.key) + " has the value " + inQuotes(value);
    const std::string advice = "write a number and K, M or G, such as 10M";
    const std::string taken = "the daemon takes " + std::to_string(size) + " bytes";
    if (digits.empty()) {
        error("size-not-a-number", use.line, use.key,
              (isBlank(value) ? inQuotes(use.key) + " is followed by other white space than spaces"
                              : what + ", which does not begin with a number") +
                  ": the limit is 0, and the log is rotated in each cycle",
              advice);
        return;
    }
    const std::string_view unit = rest.substr(0, 1);
    double factor = 1;
    if (unit == "K") {
        factor = 1024;
    } else if (unit == "M") {
        factor = 1048576;
    } else if (unit == "G") {
        factor = 1073741824;
    }
    if (factor > 1) {
        // "MB" and "MiB" say the same.
        rest.remove_prefix(std::min(rest.find_first_of(whiteSpace), rest.size()));
        lookBehindValue(use, rest);
    } else if (unit == "k" || unit == "m" || unit == "g") {
        error("size-lower-case-unit", use.line, use.key,
              what + ", whose unit is not seen, since it is a lower-case letter: " + taken, advice);
        return;
    } else if (!isBlank(rest) && unit != "B" && unit != "#") {
        error("size-unknown-unit", use.line, use.key,
              what + ", in which " + inQuotes(rest) + " is ignored: " + taken, advice);
        return;
    } else if (unit != "B") {
        lookBehindValue(use, rest);
    }

    const double meant = std::strtod(digits.c_str(), nullptr) * factor * (isNegative ? -1 : 1);
    if (meant < INT_MIN || meant > INT_MAX) {
        const char* const effect = size == 0  ? ", and the log is rotated in each cycle"
                                   : size < 0 ? ", and the log is never rotated"
                                              : "";
        error("size-wraps", use.line, use.key,
              what + ", which is beyond 2,147,483,647 bytes and wraps around: " + taken + effect,
              "write a size below 2G");
    } else if (size == 0) {
        warning("size-zero", use.line, use.key, what + ": the log is rotated in each cycle",
                advice);
    } else if (size < 0) {
        warning("size-negative", use.line, use.key,
                what + ": the log is never rotated and grows without limit", advice);
    }
}

void Finder::lookBehindValue(const KeyUse& use, std::string_view behind) {
    if (isBlank(behind) || behind.find(blockStart) != std::string_view::npos) {
        return;
    }
    const std::string value(behind.substr(behind.find_first_not_of(whiteSpace)));
    if (value.front() == '#') {
        warning("comment-behind-value", use.line, use.key,
                "\"#\" begins no comment behind a value; what follows the value of " +
                    inQuotes(use.key) + " is ignored for being further words",
                "write the comment on a line of its own");
    } else if (isPathKey(use.key)) {
        error("blank-in-path", use.line, use.key,
              "the path of " + inQuotes(use.key) + " ends at its first blank, as " +
                  inQuotes(firstWord(use.rest)) + ": " + inQuotes(value) + " is ignored",
              "use a path without blanks; there is no way to write one");
    } else {
        warning("extra-words", use.line, use.key,
                inQuotes(use.key) + " takes one word, " + inQuotes(firstWord(use.rest)) + ": " +
                    inQuotes(value) + " is ignored",
                "take the further words out, or put them on a line that begins with \"#\"");
    }
}

void Finder::lookAtPauses(const ConfigBlock& block, const BlockPauses& pauses) {
    if (pauses.minPause != 0) {
        return; // a negative one was found where it stands
    }
    const Origin& origin = pauses.minPauseOrigin;
    std::string from = "none is given, here or in a block before";
    if (origin.kind == Origin::Kind::own) {
        from = "it is given as 0";
    } else if (origin.kind == Origin::Kind::inherited) {
        from = "it is that of detector " + inQuotes(origin.detector) + ", line " +
               std::to_string(origin.line);
    }
    warning("busy-cycle", origin.kind == Origin::Kind::own ? origin.line : block.line, block.id,
            "the minpause of detector " + inQuotes(block.id) + " is 0 (" + from +
                "): an empty share is listed over and over without a rest",
            "set minpause to some hundred milliseconds");
}

void Finder::lookAtStartOptions() {
    for (std::size_t i = 0; i + 1 < startOptions.size(); i += 2) {
        const std::string& option = startOptions[i];
        const std::string subject = option + " " + startOptions[i + 1];
        const std::vector<std::string> fields = UTILITIES::splitWords(startOptions[i + 1], ':');
        const bool hasTarget = fields.size() == 3;
        for (std::size_t field = hasTarget ? 1 : 0; field < fields.size(); ++field) {
            if (!isPlainWord(fields[field])) {
                error("shell-characters", 0, subject,
                      "the start option " + inQuotes(subject) +
                          " has characters that mean something to the shell, to which the daemon "
                          "passes it as it stands",
                      "use letters, digits and / . _ - + @ % , only");
            }
        }
        if (hasTarget && fields[2].front() != '/') {
            error("relative-target", 0, subject,
                  "the target of the start option " + inQuotes(subject) +
                      " has no \"/\" in front, so that it lies in the daemon's directory, which "
                      "is the root directory",
                  "write the whole path of the target");
        }
    }
}

int Finder::lineOf(const std::string& settingKey) const {
    const KeyUse* const use = view.find(settingKey);
    return use != nullptr ? use->line : 0;
}

void Finder::lookAtLog() {
    if (start.logFileName == "/dev/null") {
        warning("no-log", lineOf("logfile"), "logfile",
                "the log is /dev/null: nothing tells what was copied, lost or failed",
                "set it, for instance \"logfile /var/log/skarn.log\"");
    }
}

void Finder::lookAtUserDirectory() {
    if (!start.usrdir.empty() && (start.uid.empty() || start.gid.empty())) {
        const char* const lacking =
            start.uid.empty() ? start.gid.empty() ? "uid and gid" : "uid" : "gid";
        warning("usrdir-without-owner", lineOf("usrdir"), "usrdir",
                std::string("usrdir is set without ") + lacking +
                    ": the target is not given to the owner that it is meant for",
                "set uid and gid in the file, or start with \"-u UID:GID\"");
    }
}

/// The line in which the target of a detector that is served stands; 0 if a start option gave it.
int Finder::lineOfTarget(const std::string& detector) const {
    const auto block = served.find(detector);
    if (isRepointed(detector) || block == served.end()) {
        return 0;
    }
    const KeyUse* const use = ConfigView::find("target", *block->second);
    return use != nullptr ? use->line : block->second->line;
}

void Finder::lookAtTargets() {
    std::vector<std::string> places;
    for (const Detector& detector : start.detectors) {
        places.push_back(targetFolder(detector.target));
        // An empty target is told of already, where it is missing.
        std::string configured = "/";
        if (!isRepointed(detector.id)) {
            configured.clear();
            UTILITIES::readVar(served.at(detector.id)->text, "target", configured);
        }
        if (places.back() == "/" && !configured.empty()) {
            error("root-target", lineOfTarget(detector.id), detector.id,
                  "the target of detector " + inQuotes(detector.id) +
                      " is the root directory of this host",
                  "use a directory below it");
        }
    }
    for (const TargetOverlap& overlap : overlappingTargets(places)) {
        const std::string& one = start.detectors[overlap.outer].id;
        const std::string& other = start.detectors[overlap.inner].id;
        const int line = lineOfTarget(other);
        if (overlap.same) {
            error("same-target", line, other, sameTargetText(one, other, places[overlap.inner]),
                  sameTargetAdvice);
        } else {
            warning("nested-target", line, other,
                    nestedTargetText(one, other, places[overlap.inner]), nestedTargetAdvice);
        }
    }
}

} // namespace

std::string nearestKey(std::string_view word) {
    constexpr std::size_t longest = 64;
    constexpr std::size_t shortestStem = 3;
    if (word.size() > longest) {
        return {};
    }
    const std::string lower = lowerCase(word);
    std::string nearest;
    std::size_t least = 2 + word.size() / 4;
    for (const auto* const keys : {&settingKeys(), &detectorKeys()}) {
        for (const std::string& key : *keys) {
            const std::size_t changes = distance(lower, lowerCase(key));
            if (changes < least && changes < key.size()) {
                least = changes;
                nearest = key;
            }
        }
    }
    if (nearest.empty() && word.size() >= shortestStem) {
        for (const auto* const keys : {&settingKeys(), &detectorKeys()}) {
            for (const std::string& key : *keys) {
                if (nearest.empty() && lowerCase(key).substr(0, lower.size()) == lower) {
                    nearest = key;
                }
            }
        }
    }
    return nearest;
}

bool isPlainWord(std::string_view text) {
    return !text.empty() && text.front() != '~' && text.front() != '#' && text.front() != '-' &&
           text.find_first_of("|&;<>()$`\\\"' \t\n\v\f\r*?[]{}") == std::string_view::npos;
}

Findings findInConfiguration(const ConfigView& view, const Configuration& start,
                             const std::vector<std::string>& startOptions) {
    return Finder(view, start, startOptions).find();
}

} // namespace control
