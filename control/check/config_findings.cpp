// What is wrong with a configuration that the daemon reads without a word.
#include "control/check/config_findings.h"

#include "utilities/text.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <utility>

#include <arpa/inet.h>

namespace control {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view blockStart = "detectorID ";

/// More than these say nothing new.
constexpr std::size_t mostOfOneCode = 50;

std::string firstWord(std::string_view text) {
    return std::string(UTILITIES::takeWord(text));
}

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char character) {
        return static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    });
    return lower;
}

/// The changes of one letter that make one word of another.
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

/// The key that the author of a line had in mind, as far as that can be guessed: the longest that
/// it begins with, or the nearest.
std::string meantKey(std::string_view word) {
    std::string longest;
    for (const Key& key : allKeys()) {
        const std::string_view behind = word.substr(std::min(word.size(), key.name.size()));
        const bool goesOn =
            !behind.empty() && (std::isalnum(static_cast<unsigned char>(behind.front())) != 0 ||
                                behind.front() == '_');
        if (key.name.size() > longest.size() && !goesOn &&
            word.substr(0, key.name.size()) == key.name) {
            longest = key.name;
        }
    }
    return longest.empty() ? nearestKey(word) : longest;
}

/// The number of bytes that a size says to a human being; nothing if it is none.
std::optional<double> meantSize(const std::string& written) {
    // Such as "+ 20 MiB".
    const std::size_t begin = written.find_first_of("0123456789");
    const std::size_t end = written.find_first_not_of("0123456789", begin);
    if (begin == std::string::npos) {
        return std::nullopt;
    }
    const std::string sign = written.substr(0, begin);
    const std::string number = written.substr(begin, end - begin);
    std::string unit = end == std::string::npos ? "" : lowerCase(written.substr(end));
    unit.erase(0, unit.find_first_not_of(' '));
    const std::set<std::string> ends = {"", "b", "ib"};
    const std::size_t power = unit.empty() ? std::string::npos : std::string("kmg").find(unit[0]);
    const bool hasPower = power != std::string::npos;
    if (sign.find_first_not_of(' ', sign.find_first_of("+-") == 0 ? 1 : 0) != std::string::npos ||
        ends.count(hasPower ? unit.substr(1) : unit) == 0) {
        return std::nullopt;
    }
    const double size = std::strtod(number.c_str(), nullptr);
    const double factor = hasPower ? std::pow(1024.0, static_cast<double>(power + 1)) : 1;
    return (sign.substr(0, 1) == "-" ? -size : size) * factor;
}

/// An IPv6 address in the form that a URL takes. The shell finds no file by this pattern, and so
/// leaves it alone.
bool isBracketedAddress(const std::string& value) {
    in6_addr parsed = {};
    return value.size() > 2 && value.front() == '[' && value.back() == ']' &&
           inet_pton(AF_INET6, value.substr(1, value.size() - 2).c_str(), &parsed) == 1;
}

bool leadsUpwards(const std::string& path) {
    const fs::path parts(path);
    return std::find(parts.begin(), parts.end(), "..") != parts.end();
}

/// What is wrong with an address; empty if nothing is.
std::string whyNoAddress(const std::string& address) {
    const bool onlyNumbers = address.find_first_not_of("0123456789.") == std::string::npos;
    in_addr parsed = {};
    if (onlyNumbers && inet_pton(AF_INET, address.c_str(), &parsed) != 1) {
        return "no address of four numbers up to 255";
    }
    if (address.find_first_of("/@") != std::string::npos) {
        return "more than an address or a host's name";
    }
    return address.find(':') != std::string::npos ? "no address alone: the daemon adds its port"
                                                  : "";
}

/// What comes of a number that hardly anybody wants; empty for any other.
std::string effectOf(const Key& key, long number) {
    constexpr long manyArchives = 1000;
    if (key.ofDetector) {
        return number < 0 ? "the daemon does not pause at all" : "";
    }
    if (key.kind == Key::Kind::size) {
        return number == 0  ? "the log is rotated in each cycle"
               : number < 0 ? "the log is never rotated and grows without limit"
                            : "";
    }
    return number < 0              ? "this counts as 0: one archive, .0, is kept"
           : number > manyArchives ? "each rotation renames so many files, and everything waits"
                                   : "";
}

/// Gathers findings for findInConfiguration.
class Finder {
public:
    Finder(const ConfigView& configView, const Configuration& startConfiguration,
           const std::vector<std::string>& options, const std::vector<std::string>& targets)
        : view(configView), start(startConfiguration), startOptions(options), folders(targets) {
        for (std::size_t i = 0; i + 1 < startOptions.size(); i += 2) {
            const std::vector<std::string> fields = UTILITIES::splitWords(startOptions[i + 1], ':');
            if (fields.size() == 3) {
                repointed.insert(fields[0]);
            }
        }
    }

    Findings find() {
        if (const auto& cut = view.cut()) {
            error("line-too-long", cut->line, "line",
                  "the line has " + std::to_string(cut->length) +
                      " characters, and the daemon stops reading at one of 1,024 or more: it and "
                      "the " +
                      std::to_string(cut->ignored) + " lines below are ignored",
                  "shorten the line to 1,023 characters or less, also if it is a comment");
        }
        if (view.firstNul() > 0) {
            error("nul-byte", view.firstNul(), "line",
                  "the line has a NUL byte: what follows it in the line is ignored",
                  "save the file as plain text (UTF-8 or ASCII)");
        }
        for (const ConfigLine& line : view.lines()) {
            lookAtLine(line);
        }
        for (const Key& key : allKeys()) {
            if (const KeyUse* const use = key.ofDetector ? nullptr : view.find(key.name)) {
                lookAtUse(*use, nullptr);
            }
        }
        for (const ConfigBlock& block : view.blocks()) {
            lookAtBlock(block);
        }
        lookAtWhole();
        lookAtStartOptions();
        lookAtDetectors();
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
    void warning(const char* code, int line, const std::string& subject, const std::string& text,
                 const std::string& advice) {
        add(Severity::warning, code, line, subject, text, advice);
    }

    void lookAtLine(const ConfigLine& line);
    void lookAtUse(const KeyUse& use, const ConfigBlock* block);
    void lookAtValue(const KeyUse& use);
    void lookAtBlock(const ConfigBlock& block);
    void lookAtWhole();
    void lookAtStartOptions();
    void lookAtDetectors();
    void tellOfTheRest();
    std::string whatCounts(const Key& key, const ConfigBlock* block) const;
    int lineOf(const std::string& settingKey) const {
        const KeyUse* const use = view.find(settingKey);
        return use != nullptr ? use->line : 0;
    }
    int lineOf(const std::string& detector, const char* key) const;
    bool isRepointed(const std::string& detector) const { return repointed.count(detector) > 0; }

    const ConfigView& view;
    const Configuration& start;
    const std::vector<std::string>& startOptions;
    const std::vector<std::string>& folders;
    Findings findings;
    Finding::About about = Finding::About::configuration; // what is being looked at
    std::set<std::string> repointed;                      // detectors that a start option is about
    std::map<std::string, std::size_t> told;              // how often each code was found
};

/// The value that the daemon goes by, as the end of a sentence.
std::string Finder::whatCounts(const Key& key, const ConfigBlock* block) const {
    static const Configuration defaults;
    std::string value;
    if (key.name == "detectorID") {
        return "no detector begins here";
    }
    if (key.ofDetector) {
        value = block == nullptr               ? ""
                : key.name == "minpause"       ? std::to_string(block->minPause.milliseconds)
                : key.name == "interrun_pause" ? std::to_string(block->interrunPause.milliseconds)
                                               : block->valueOf(key.name);
    } else if (const KeyUse* const use = view.find(key.name); use != nullptr && use->taken) {
        value = *use->taken;
    } else {
        value = key.name == "logfile"              ? defaults.logFileName
                : key.name == "logfile_max_size"   ? std::to_string(defaults.logFileMaxSize)
                : key.name == "logfile_max_number" ? std::to_string(defaults.logFileMaxNumber)
                                                   : "";
    }
    return (value.empty() ? "nothing" : inQuotes(value)) + " counts";
}

/// Looks whether a line is one in which the daemon finds what stands there.
void Finder::lookAtLine(const ConfigLine& line) {
    // A block may begin anywhere in a line, and several may.
    const std::string withEnd = line.text + " ";
    const bool hasBlockInside = withEnd.find(blockStart, 1) != std::string::npos;
    if (hasBlockInside) {
        error("block-inside-line", line.number, "detectorID",
              "\"detectorID \" stands inside the line, and a new detector begins there: what "
              "follows no longer belongs to the one before",
              "take the word out, also if it is meant as a comment");
    }
    const std::string word = firstWord(line.text);
    const ConfigBlock* const block = view.blockAt(line.offset);
    const std::string nothing = inQuotes(line.text) + ": the daemon takes nothing of it; ";
    if (const Key* const key = withEnd[word.size()] == ' ' ? findKey(word) : nullptr) {
        const KeyUse* const used = !key->ofDetector   ? view.find(word)
                                   : block == nullptr ? nullptr
                                                      : block->find(word);
        if (used == nullptr) {
            error("not-taken", line.number, word, nothing + "no detector has begun yet",
                  "move it below the detectorID line of its detector");
        } else if (used->offset != line.offset) {
            error("not-taken", line.number, word,
                  nothing + "the key stands in line " + std::to_string(used->line) + " already",
                  "keep one of the two: the first counts, also if it has no value");
        }
        return;
    }
    if (hasBlockInside) {
        return;
    }
    const bool hasMark = word.compare(0, 3, "\xef\xbb\xbf") == 0;
    const std::string meant = meantKey(hasMark ? word.substr(3) : word);
    if (meant.empty()) {
        std::string keys;
        for (const Key& key : allKeys()) {
            keys += (keys.empty() ? "" : ", ") + key.name;
        }
        error("not-taken", line.number, word, nothing + inQuotes(word) + " is no key",
              "the keys are " + keys + " (a comment begins with \"#\")");
        return;
    }
    error("not-taken", line.number, meant, nothing + whatCounts(*findKey(meant), block),
          hasMark ? "save the file as plain text, without a byte order mark in front"
                  : "write the key, a space, and its value: \"" + meant + " VALUE\"");
}

/// Looks whether the daemon takes from a key what was written there.
void Finder::lookAtUse(const KeyUse& use, const ConfigBlock* block) {
    const Key& key = *use.key;
    const std::string line = inQuotes(key.name + (use.written.empty() ? "" : " ") + use.written);
    if (!use.taken) {
        // What is told of a block that lacks these says enough.
        if (key.kind == Key::Kind::number || !key.ofDetector) {
            error("not-taken", use.line, key.name,
                  line + ": the daemon takes nothing of it; " + whatCounts(key, block),
                  use.written.empty() ? "write a value behind it, or take the line out"
                                      : "write a number that is not beyond 2147483647");
        }
        return;
    }
    const std::string& taken = *use.taken;
    const std::string takes = line + ": the daemon takes " + inQuotes(taken);
    if (use.written.empty()) {
        error("taken-otherwise", use.line, key.name,
              takes + (key.kind == Key::Kind::size ? "" : ", from the next line"),
              "write a value behind it, or take the line out");
        return;
    }

    // What stands behind a value, and is no part of it.
    std::string written = use.written;
    const std::size_t comment = written.find_first_of(" \t") == std::string::npos
                                    ? std::string::npos
                                    : written.find('#', written.find_first_of(" \t"));
    if (written.find(blockStart) != std::string::npos) {
        written = taken; // told of already
    } else if (comment != std::string::npos && trimmed(written.substr(0, comment)) != written) {
        warning("taken-otherwise", use.line, key.name,
                takes + "; \"#\" begins no comment behind a value, it is ignored by chance",
                "write the comment on a line of its own");
        written = trimmed(written.substr(0, comment));
    }

    bool isAsMeant = written == taken;
    if (key.kind == Key::Kind::number) {
        char* end = nullptr;
        const long number = std::strtol(written.c_str(), &end, 10);
        isAsMeant = *end == '\0' && std::to_string(number) == taken;
    } else if (key.kind == Key::Kind::size) {
        isAsMeant = meantSize(written) == std::strtod(taken.c_str(), nullptr);
    } else if (std::string_view("=:\"'").find(taken.front()) != std::string_view::npos) {
        error("taken-otherwise", use.line, key.name, takes + ", with the sign in front",
              "leave it out; no value can hold a blank");
        return;
    }
    const bool isNumber = key.kind == Key::Kind::number || key.kind == Key::Kind::size;
    const std::string effect =
        isNumber ? effectOf(key, std::strtol(taken.c_str(), nullptr, 10)) : "";
    const char* const advice = key.kind == Key::Kind::size
                                   ? "write a number below 2G and K, M or G, such as 10M"
                               : isNumber ? "write a whole number, of milliseconds for a pause"
                                          : "write one word; no value can hold a blank";
    if (!isAsMeant) {
        const bool isHarmless = key.kind == Key::Kind::word || written == taken + "ms";
        add(isHarmless ? Severity::warning : Severity::error, "taken-otherwise", use.line, key.name,
            takes + (effect.empty() ? "" : ": ") + effect, advice);
    } else if (!effect.empty()) {
        add(key.ofDetector ? Severity::error : Severity::warning, "bad-value", use.line, key.name,
            line + ": " + effect, advice);
    } else if (!isNumber) {
        lookAtValue(use);
    }
}

void Finder::lookAtValue(const KeyUse& use) {
    const std::string& key = use.key->name;
    std::string value = *use.taken;
    const std::string is = key + " " + inQuotes(value) + " ";
    if (key == "remoteIP" && isBracketedAddress(value)) {
        return;
    }
    if (key == "usrdir") {
        // The first of each is replaced before the shell sees it.
        for (const char* const name : {"$UID", "$GID"}) {
            const std::size_t at = value.find(name);
            if (at != std::string::npos) {
                value.replace(at, 4, "0");
            }
        }
    }
    if (use.key->reachesShell && !isPlainWord(value)) {
        error("bad-value", use.line, key,
              is + "has characters that mean something to the shell, to which the daemon passes it "
                   "as it stands (of $UID and $GID the first is replaced)",
              "use letters, digits and / . _ - + : @ % , only");
    } else if (const std::string reason = whyNoAddress(value);
               key == "remoteIP" && !reason.empty()) {
        error("bad-value", use.line, key, is + "is " + reason,
              "write the address or the name of the detector alone");
    } else if ((key == "logfile" || key == "target") && value.front() != '/') {
        error("bad-value", use.line, key,
              is + "has no \"/\" in front, so that it lies in the root directory, or where whoever "
                   "starts the daemon happens to be",
              "write the whole path");
    } else if (key == "source" && leadsUpwards(value)) {
        error("bad-value", use.line, key, is + "leads upwards, where no share lets anybody go",
              "name the directory without \"..\"");
    }
}

void Finder::lookAtBlock(const ConfigBlock& block) {
    for (const auto& [key, use] : block.uses) {
        lookAtUse(use, &block);
    }
    if (!block.served) {
        error("repeated-detector", block.line, block.id,
              "detector " + inQuotes(block.id) + " is defined again in line " +
                  std::to_string(view.servedBlock(block.id)->line) +
                  ", and only its last definition is served: this one is ignored",
              "give each detector an ID of its own, or keep one definition");
        return;
    }
    const auto lookFor = [&](Severity severity, const char* key, const char* effect) {
        const bool isGiven = isRepointed(block.id) && key != std::string_view("remoteIP");
        if (block.valueOf(key).empty() && !isGiven) {
            const KeyUse* const use = block.find(key);
            add(severity, "missing-key", use != nullptr ? use->line : block.line, block.id,
                "detector " + inQuotes(block.id) + " has no " + key + ", so that " + effect,
                std::string("write a value behind \"") + key + " \" in its block");
        }
    };
    if (block.id.empty()) {
        lookFor(Severity::error, "detectorID", "\"-d\" and the log can't name it");
    }
    lookFor(Severity::error, "remoteIP", "none of its files is ever found");
    lookFor(Severity::warning, "source", "its whole share is served (\"source /\" says so, too)");
    lookFor(Severity::error, "target", "its files go into the root directory of this host");
    if (const Pause& pause = block.minPause; pause.milliseconds == 0) {
        const bool isOwn = pause.line != 0 && block.find("minpause") != nullptr;
        warning("busy-cycle", isOwn ? pause.line : block.line, block.id,
                "the minpause of detector " + inQuotes(block.id) + " is 0 (" +
                    (pause.line == 0 ? "none is given, here or in a block before"
                                     : "that of detector " + inQuotes(pause.detector) + ", line " +
                                           std::to_string(pause.line)) +
                    "): an empty share is listed over and over without a rest",
                "set minpause to some hundred milliseconds");
    }
}

void Finder::lookAtWhole() {
    if (view.blocks().empty()) {
        add(Severity::fatal, "no-detector", 0, "detectorID",
            "the file defines no detector, so that the daemon ends as soon as it has started",
            "add a block that begins with a \"detectorID ID\" line for each detector");
    }
    if (start.logFileName == "/dev/null") {
        warning("no-log", lineOf("logfile"), "logfile",
                "the log is /dev/null: nothing tells what was copied, lost or failed",
                "set it, for instance \"logfile /var/log/skarn.log\"");
    }
    if (!start.usrdir.empty() && (start.uid.empty() || start.gid.empty())) {
        warning("usrdir-without-owner", lineOf("usrdir"), "usrdir",
                "usrdir is set without uid and gid: the target is not given to the owner that it "
                "is meant for",
                "set uid and gid in the file, or start with \"-u UID:GID\"");
    }
}

void Finder::lookAtStartOptions() {
    about = Finding::About::startOptions;
    for (std::size_t i = 0; i + 1 < startOptions.size(); i += 2) {
        const std::string subject = startOptions[i] + " " + startOptions[i + 1];
        const std::string is = "the start option " + inQuotes(subject) + " ";
        const std::vector<std::string> fields = UTILITIES::splitWords(startOptions[i + 1], ':');
        const bool hasTarget = fields.size() == 3;
        if (!std::all_of(fields.begin() + (hasTarget ? 1 : 0), fields.end(), isPlainWord)) {
            error("bad-value", 0, subject,
                  is + "has characters that mean something to the shell, to which the daemon "
                       "passes it as it stands",
                  "use letters, digits and / . _ - + @ % , only");
        } else if (hasTarget && (fields[2].front() != '/' || leadsUpwards(fields[1]))) {
            error("bad-value", 0, subject,
                  is + "has a target without \"/\" in front, or a source with \"..\"",
                  "write the whole path of the target, and a source without \"..\"");
        }
    }
    about = Finding::About::configuration;
}

/// The line in which a key of a detector stands; 0 if a start option took its place.
int Finder::lineOf(const std::string& detector, const char* key) const {
    const ConfigBlock* const block = view.servedBlock(detector);
    if (isRepointed(detector) || block == nullptr) {
        return 0;
    }
    const KeyUse* const use = block->find(key);
    return use != nullptr ? use->line : block->line;
}

/// Looks for detectors that get in each other's way.
void Finder::lookAtDetectors() {
    std::map<std::string, std::string> byFolder; // the first detector of each
    std::map<std::string, std::string> byShare;
    for (std::size_t i = 0; i < start.detectors.size(); ++i) {
        byFolder.emplace(folders[i], start.detectors[i].id);
    }
    for (std::size_t i = 0; i < start.detectors.size(); ++i) {
        const Detector& detector = start.detectors[i];
        const std::string& folder = folders[i];
        const std::string id = inQuotes(detector.id);
        const int line = lineOf(detector.id, "target");
        const ConfigBlock* const block = view.servedBlock(detector.id);
        const bool hasTarget =
            block == nullptr || isRepointed(detector.id) || !block->valueOf("target").empty();
        if (folder == "/" && hasTarget) {
            error("bad-value", line, detector.id,
                  "the target of detector " + id + " is the root directory of this host",
                  "use a directory below it");
        }
        const auto [share, isFirst] = byShare.emplace(detector.shareUrl, detector.id);
        if (!isFirst && !detector.remoteIp.empty()) {
            error("same-share", lineOf(detector.id, "source"), detector.id,
                  "detectors " + inQuotes(share->second) + " and " + id + " have one share, " +
                      inQuotes(detector.shareUrl) +
                      ": each file goes to the one that happens to list it first",
                  "give each detector a share of its own");
        }
        if (const std::string& first = byFolder.at(folder); first != detector.id) {
            error("same-target", line, detector.id,
                  "detectors " + inQuotes(first) + " and " + id + " have one target, " +
                      inQuotes(folder) + ": files of the same name overwrite each other",
                  "give each detector a target of its own");
            continue;
        }
        for (fs::path above = fs::path(folder).parent_path(); above.has_relative_path();
             above = above.parent_path()) {
            const auto outer = byFolder.find(above.string());
            if (outer != byFolder.end()) {
                warning("nested-target", line, detector.id,
                        "the target of detector " + id + ", " + inQuotes(folder) +
                            ", lies inside that of detector " + inQuotes(outer->second),
                        "use targets that lie beside each other");
                break;
            }
        }
    }
}

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

} // namespace

std::string targetFolder(const std::string& target) {
    // Two slashes in front may mean something of their own to others.
    const std::string relative =
        target.substr(std::min(target.find_first_not_of('/'), target.size()));
    const fs::path folder = fs::path("/" + relative).lexically_normal();
    return (folder.has_filename() ? folder : folder.parent_path()).string();
}

std::string nearestKey(std::string_view word) {
    constexpr std::size_t longest = 64;
    constexpr std::size_t shortestStem = 3;
    if (word.size() > longest) {
        return {};
    }
    const std::string lower = lowerCase(word);
    std::string nearest;
    std::size_t least = 2 + word.size() / 4;
    for (const Key& key : allKeys()) {
        const std::size_t changes = distance(lower, lowerCase(key.name));
        if (changes < least && changes < key.name.size()) {
            least = changes;
            nearest = key.name;
        }
    }
    for (const Key& key : allKeys()) {
        if (nearest.empty() && word.size() >= shortestStem &&
            lowerCase(key.name).compare(0, lower.size(), lower) == 0) {
            nearest = key.name;
        }
    }
    return nearest;
}

bool isPlainWord(std::string_view text) {
    return !text.empty() && text.front() != '~' && text.front() != '#' && text.front() != '-' &&
           text.find_first_of("|&;<>()$`\\\"' \t\n\v\f\r*?[]{}") == std::string_view::npos;
}

Findings findInConfiguration(const ConfigView& view, const Configuration& start,
                             const std::vector<std::string>& startOptions,
                             const std::vector<std::string>& folders) {
    return Finder(view, start, startOptions, folders).find();
}

} // namespace control
