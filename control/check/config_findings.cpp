// What is wrong with a configuration that the daemon reads without a word.
#include "control/check/findings.h"
#include "utilities/text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include <arpa/inet.h>
#include <regex.h>
#include <strings.h>

namespace control {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view blockStart = "detectorID ";
constexpr const char* reachesShell =
    "it has characters that mean something to the shell, to which the daemon passes it as it "
    "stands";

/// More than these say nothing new.
constexpr std::size_t mostOfOneCode = 50;

/// The changes of one letter that make one word of another; capitals do not matter.
std::size_t distance(std::string_view one, std::string_view other) {
    const auto lower = [](char letter) { return std::tolower(static_cast<unsigned char>(letter)); };
    std::vector<std::size_t> row(other.size() + 1);
    for (std::size_t i = 0; i < row.size(); ++i) {
        row[i] = i;
    }
    for (std::size_t i = 1; i <= one.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= other.size(); ++j) {
            const bool isSame = lower(one[i - 1]) == lower(other[j - 1]);
            const std::size_t changed = diagonal + (isSame ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

/// The key of this name; null if there is none.
const Key* findKey(std::string_view name) {
    const auto found = std::find_if(allKeys().begin(), allKeys().end(),
                                    [name](const Key& key) { return key.name == name; });
    return found == allKeys().end() ? nullptr : &*found;
}

/// The number of bytes that a size, such as "+ 20 MiB", says to a human being; nothing if it is
/// none.
std::optional<double> meantSize(const std::string& written) {
    // Not the standard library's expressions, which take a compiler longer than all else here.
    regex_t form = {};
    std::array<regmatch_t, 4> parts{};
    regcomp(&form, "^([+-]?) *([0-9]+) *([kmg]?)(i?b)?$", REG_EXTENDED | REG_ICASE);
    const bool isSize = regexec(&form, written.c_str(), parts.size(), parts.data(), 0) == 0;
    regfree(&form);
    if (!isSize) {
        return std::nullopt;
    }
    const char* const text = written.c_str();
    const bool hasUnit = parts[3].rm_so < parts[3].rm_eo;
    const double power =
        hasUnit ? static_cast<double>(std::string("kmgKMG").find(text[parts[3].rm_so]) % 3 + 1) : 0;
    const double size = std::strtod(text + parts[2].rm_so, nullptr) * std::pow(1024.0, power);
    return text[0] == '-' ? -size : size;
}

/// Whether the daemon takes what the author of a value means by it.
bool isAsMeant(const Key& key, const std::string& written, const std::string& taken) {
    if (key.kind == Key::Kind::number) {
        char* end = nullptr;
        const long number = std::strtol(written.c_str(), &end, 10);
        return *end == '\0' && std::to_string(number) == taken;
    }
    return key.kind == Key::Kind::size ? meantSize(written) == std::strtod(taken.c_str(), nullptr)
                                       : written == taken;
}

bool leadsUpwards(const std::string& path) {
    const fs::path parts(path);
    return std::find(parts.begin(), parts.end(), "..") != parts.end();
}

/// True for an IPv6 address in the form that a URL takes. The shell finds no file by this pattern,
/// and so leaves it alone.
bool isBracketedAddress(const std::string& value) {
    in6_addr parsed = {};
    return value.size() > 2 && value.front() == '[' && value.back() == ']' &&
           inet_pton(AF_INET6, value.substr(1, value.size() - 2).c_str(), &parsed) == 1;
}

bool isNoAddress(const std::string& value) {
    in_addr parsed = {};
    return value.find_first_of("/@:") != std::string::npos ||
           (value.find_first_not_of("0123456789.") == std::string::npos &&
            inet_pton(AF_INET, value.c_str(), &parsed) != 1);
}

/// What comes of a value that hardly anybody wants; empty for any other.
std::string effectOf(const Key& key, const std::string& value) {
    const auto isOf = [&key](std::initializer_list<std::string_view> names) {
        return std::find(names.begin(), names.end(), key.name) != names.end();
    };
    if (key.isNumber()) {
        constexpr long manyArchives = 1000;
        const long number = std::strtol(value.c_str(), nullptr, 10);
        return key.ofDetector ? (number < 0 ? "the daemon does not pause at all" : "")
               : key.kind == Key::Kind::size
                   ? (number == 0  ? "the log is rotated in each cycle"
                      : number < 0 ? "the log is never rotated and grows without limit"
                                   : "")
               : number < 0            ? "this counts as 0: one archive, .0, is kept"
               : number > manyArchives ? "each rotation renames so many files, and everything waits"
                                       : "";
    }
    std::string shown = value;
    for (const char* const name : {"$UID", "$GID"}) {
        const std::size_t at = isOf({"usrdir"}) ? shown.find(name) : std::string::npos;
        if (at != std::string::npos) {
            shown.replace(at, 4, "0"); // before the shell sees it; only the first
        }
    }
    if (isOf({"remoteIP"}) && isBracketedAddress(value)) {
        return "";
    }
    return key.reachesShell && !isPlainWord(shown) ? reachesShell
           : isOf({"remoteIP"}) && isNoAddress(value)
               ? "this is no address or host's name, to which the daemon adds user and port"
           : isOf({"logfile", "target"}) && value.front() != '/'
               ? "without \"/\" in front it lies in the root directory, or where whoever starts "
                 "the "
                 "daemon happens to be"
           : isOf({"source"}) && leadsUpwards(value)
               ? "it leads upwards, where no share lets anybody go"
               : "";
}

/// Gathers findings for findInConfiguration, whose arguments it begins with.
struct Finder {
    const ConfigView& view;
    const Configuration& start;
    const std::vector<std::string>& startOptions;
    const std::vector<std::string>& folders;

    Findings findings = {};
    Finding::About about = Finding::About::configuration; // what is being looked at
    std::set<std::string> repointed = {};                 // detectors that a start option is about
    std::map<std::string, std::size_t> told = {};         // how often each code was found

    static constexpr Severity warning = Severity::warning;
    static constexpr Severity error = Severity::error;

    Findings find() {
        lookAtStartOptions();
        lookAtWhole();
        for (const ConfigLine& line : view.lines) {
            lookAtLine(line);
        }
        for (const ConfigBlock& block : view.blocks) {
            lookAtBlock(block);
        }
        lookAtDetectors();
        const std::map<std::string, std::size_t> all = told;
        for (const auto& [code, times] : all) {
            if (times > mostOfOneCode) {
                add(error, "and-more", 0, code,
                    std::to_string(times - mostOfOneCode) + " more mistakes of the kind \"" + code +
                        "\" are not told one by one",
                    "look whether this is the right file");
            }
        }
        std::stable_sort(findings.begin(), findings.end(), [](const auto& one, const auto& other) {
            // What is about no line comes last.
            return static_cast<unsigned>(one.line - 1) < static_cast<unsigned>(other.line - 1);
        });
        return std::move(findings);
    }

    void add(Severity severity, const char* code, int line, const std::string& subject,
             const std::string& text, const std::string& advice) {
        if (++told[code] <= mostOfOneCode) {
            findings.push_back({severity, code, line, subject, text, advice, about});
        }
    }

    /// What is about the value of a key.
    void tellOf(Severity severity, const char* code, int line, const Key& key,
                const std::string& text, const std::string& subject = {}) {
        add(severity, code, line, subject.empty() ? key.name : subject, text,
            "write \"" + key.name + " VALUE\", with " + key.value + " as its value");
    }

    /// The value that the daemon goes by, as the end of a sentence.
    std::string whatCounts(const Key& key, const ConfigBlock* block) const {
        std::string value;
        if (key.name == "detectorID") {
            return "no detector begins here";
        }
        if (!key.ofDetector) {
            const auto setting = settingsOf(start).at(key.name);
            value = setting.is_string() ? setting.get<std::string>() : setting.dump();
        } else if (block != nullptr) {
            const auto pause = block->pauses.find(key.name);
            value = pause == block->pauses.end() ? block->uses.valueOf(key.name)
                                                 : std::to_string(pause->second.milliseconds);
        }
        return (value.empty() ? "nothing" : inQuotes(value)) + " counts";
    }

    /// Looks whether the daemon finds what stands in a line, and what it takes there.
    void lookAtLine(const ConfigLine& line) {
        // A block may begin anywhere in a line, and several may.
        const bool hasBlockInside = (line.text + " ").find(blockStart, 1) != std::string::npos;
        if (hasBlockInside) {
            add(error, "block-inside-line", line.number, "detectorID",
                "\"detectorID \" stands inside the line, and a new detector begins there: what "
                "follows no longer belongs to the one before",
                "take the word out, also if it is meant as a comment");
        }
        std::string_view rest = line.text;
        const std::string word(UTILITIES::takeWord(rest));
        const bool isAlone = rest.empty() || rest.front() == ' ';
        const ConfigBlock* const block = view.blockAt(line.offset);
        const std::string nothing = inQuotes(line.text) + ": the daemon takes nothing of it; ";
        if (const Key* const key = isAlone ? findKey(word) : nullptr) {
            const KeyUse* const used = !key->ofDetector   ? view.settings.lookUp(word)
                                       : block == nullptr ? nullptr
                                                          : block->uses.lookUp(word);
            if (used == nullptr) {
                add(error, "not-taken", line.number, word, nothing + "no detector has begun yet",
                    "move it below the detectorID line of its detector");
            } else if (used->offset != line.offset) {
                add(error, "not-taken", line.number, word,
                    nothing + "the key stands in line " + std::to_string(used->line) + " already",
                    "keep one of the two: the first counts, also if it has no value");
            } else if (used->taken) {
                lookAtValue(line, *key, std::string(trimmed(rest)), *used->taken, hasBlockInside);
            } else if (key->isNumber() || !key->ofDetector) {
                // Else what is told of a block that lacks it says enough.
                tellOf(error, "not-taken", line.number, *key, nothing + whatCounts(*key, block));
            }
            return;
        }
        // What its author had in mind, behind the mark that some editors leave, and up to a sign.
        const std::ptrdiff_t mark = UTILITIES::stringBegin(word, "\xef\xbb\xbf") ? 3 : 0;
        const auto end = std::find_if(word.begin() + mark, word.end(), [](unsigned char sign) {
            return std::isalnum(sign) == 0 && sign != '_';
        });
        const Key* const meant = findKey(nearestKey(std::string(word.begin() + mark, end)));
        if (meant != nullptr && !hasBlockInside) {
            tellOf(error, "not-taken", line.number, *meant,
                   nothing + whatCounts(*meant, block) +
                       (mark > 0 ? " (save the file without the byte order mark in front)" : ""));
        } else if (!hasBlockInside) {
            std::string keys;
            for (const Key& key : allKeys()) {
                keys += " " + key.name;
            }
            add(error, "not-taken", line.number, word, nothing + inQuotes(word) + " is no key",
                "the keys are" + keys + " (a comment begins with \"#\")");
        }
    }

    /// Looks whether the daemon takes what was written behind a key, and what comes of it.
    void lookAtValue(const ConfigLine& line, const Key& key, const std::string& behind,
                     const std::string& taken, bool hasBlockInside) {
        // What stands behind a value, and is no part of it. A block there is told of already.
        const std::size_t blank = std::min(behind.find_first_of(" \t"), behind.size());
        const std::size_t comment = hasBlockInside ? std::string::npos : behind.find('#', blank);
        const std::string written =
            hasBlockInside ? taken : std::string(trimmed(behind.substr(0, comment)));
        const bool hasComment = comment != std::string::npos;
        const bool hasSign =
            !key.isNumber() && std::string_view("=:\"'").find(taken[0]) != std::string_view::npos;
        const bool isTaken = !hasSign && isAsMeant(key, written, taken);
        const std::string effect = effectOf(key, taken);
        const std::string why =
            behind.empty() && key.kind != Key::Kind::size ? ", from the next line"
            : hasSign                                     ? ", with the sign in front"
            : !effect.empty()                             ? ": " + effect
            : isTaken ? "; \"#\" begins no comment behind a value, it is ignored by chance"
                      : "";
        const bool isHarmless = !hasSign && !behind.empty() && effect.empty() &&
                                (isTaken || key.kind == Key::Kind::word || written == taken + "ms");
        if (!isTaken || hasComment) {
            tellOf(isHarmless ? warning : error, "taken-otherwise", line.number, key,
                   inQuotes(line.text) + ": the daemon takes " + inQuotes(taken) + why);
        } else if (!effect.empty()) {
            const bool isSetting = key.isNumber() && !key.ofDetector;
            tellOf(isSetting ? warning : error, "bad-value", line.number, key,
                   inQuotes(line.text) + ": " + effect);
        }
    }

    void lookAtBlock(const ConfigBlock& block) {
        const std::string name = "detector " + inQuotes(block.id);
        if (!block.served) {
            add(error, "repeated-detector", block.line, block.id,
                name + " is defined again in line " +
                    std::to_string(view.servedBlock(block.id)->line) +
                    ", and only its last definition is served: this one is ignored",
                "give each detector an ID of its own, or keep one definition");
            return;
        }
        const std::pair<const char*, const char*> needed[] = {
            {"detectorID", "\"-d\" and the log can't name it"},
            {"remoteIP", "none of its files is ever found"},
            {"source", "its whole share is served (\"source /\" says so, too)"},
            {"target", "its files go into the root directory of this host"},
        };
        for (const auto& [keyName, effect] : needed) {
            const Key& key = *findKey(keyName);
            const bool isGiven = repointed.count(block.id) > 0 && key.kind == Key::Kind::path;
            if (block.uses.valueOf(key.name).empty() && !isGiven) {
                tellOf(key.name == "source" ? warning : error, "missing-key",
                       lineOf(block, key.name), key,
                       name + " has no " + key.name + ", so that " + effect, block.id);
            }
        }
        if (const Pause& pause = block.pauses.at("minpause"); pause.milliseconds == 0) {
            add(warning, "busy-cycle", lineOf(block, "minpause"), block.id,
                "the minpause of " + name + " is 0 (" +
                    (pause.line == 0 ? "none is given, here or in a block before"
                                     : "that of detector " + inQuotes(pause.detector) + ", line " +
                                           std::to_string(pause.line)) +
                    "): an empty share is listed over and over without a rest",
                "set minpause to some hundred milliseconds");
        }
    }

    void lookAtWhole() {
        if (view.cutLine > 0) {
            add(error, "line-too-long", view.cutLine, "line",
                "the line has " + std::to_string(view.cutLength) +
                    " characters, and the daemon stops reading at one of 1,024 or more: it and "
                    "the " +
                    std::to_string(view.ignoredLines) + " lines below are ignored",
                "shorten the line to 1,023 characters or less, also if it is a comment");
        }
        if (view.nulLine > 0) {
            add(error, "nul-byte", view.nulLine, "line",
                "the line has a NUL byte: what follows it in the line is ignored",
                "save the file as plain text (UTF-8 or ASCII)");
        }
        if (view.blocks.empty()) {
            add(Severity::fatal, "no-detector", 0, "detectorID",
                "the file defines no detector, so that the daemon ends as soon as it has started",
                "add a block that begins with a \"detectorID ID\" line for each detector");
        }
        const KeyUse* const log = view.settings.lookUp("logfile");
        if (start.logFileName == "/dev/null") {
            add(warning, "no-log", log == nullptr ? 0 : log->line, "logfile",
                "the log is /dev/null: nothing tells what was copied, lost or failed",
                "set it, for instance \"logfile /var/log/skarn.log\"");
        }
        if (!start.usrdir.empty() && (start.uid.empty() || start.gid.empty())) {
            add(warning, "usrdir-without-owner", view.settings.at("usrdir").line, "usrdir",
                "usrdir is set without uid and gid: the target is not given to the owner that it "
                "is meant for",
                "set uid and gid in the file, or start with \"-u UID:GID\"");
        }
    }

    void lookAtStartOptions() {
        about = Finding::About::startOptions;
        for (std::size_t i = 0; i + 1 < startOptions.size(); i += 2) {
            const std::string subject = startOptions[i] + " " + startOptions[i + 1];
            const std::vector<std::string> fields = UTILITIES::splitWords(startOptions[i + 1], ':');
            const bool hasTarget = fields.size() == 3;
            if (hasTarget) {
                repointed.insert(fields[0]);
            }
            const std::string wrong =
                !std::all_of(fields.begin() + (hasTarget ? 1 : 0), fields.end(), isPlainWord)
                    ? reachesShell
                : hasTarget && (fields[2].front() != '/' || leadsUpwards(fields[1]))
                    ? "it has a target without \"/\" in front, or a source with \"..\""
                    : "";
            if (!wrong.empty()) {
                add(error, "bad-value", 0, subject,
                    "the start option " + inQuotes(subject) + ": " + wrong,
                    "write whole paths, of letters, digits and / . _ - + @ % , only");
            }
        }
        about = Finding::About::configuration;
    }

    /// The line in which a key of a detector stands, or should.
    static int lineOf(const ConfigBlock& block, const std::string& key) {
        const KeyUse* const use = block.uses.lookUp(key);
        return use != nullptr ? use->line : block.line;
    }

    /// Looks for detectors that get in each other's way.
    void lookAtDetectors() {
        std::map<std::string, std::string> byFolder; // the first detector of each
        std::map<std::string, std::string> byShare;
        for (std::size_t i = 0; i < start.detectors.size(); ++i) {
            byFolder.emplace(folders[i], inQuotes(start.detectors[i].id));
        }
        for (std::size_t i = 0; i < start.detectors.size(); ++i) {
            const Detector& detector = start.detectors[i];
            const ConfigBlock& block = *view.servedBlock(detector.id);
            const bool isRepointed = repointed.count(detector.id) > 0; // by a start option
            const int line = isRepointed ? 0 : lineOf(block, "target");
            const std::string& folder = folders[i];
            const std::string id = inQuotes(detector.id);
            if (folder == "/" && (isRepointed || !block.uses.valueOf("target").empty())) {
                add(error, "bad-value", line, detector.id,
                    "the target of detector " + id + " is the root directory of this host",
                    "use a directory below it");
            }
            const auto [share, isFirst] = byShare.emplace(detector.shareUrl, id);
            if (!isFirst && !detector.remoteIp.empty()) {
                add(error, "same-share", isRepointed ? 0 : lineOf(block, "source"), detector.id,
                    "detectors " + share->second + " and " + id + " have one share, " +
                        inQuotes(detector.shareUrl) +
                        ": each file goes to the one that happens to list it first",
                    "give each detector a share of its own");
            }
            fs::path above = fs::path(folder).parent_path();
            while (above.has_relative_path() && byFolder.count(above.string()) == 0) {
                above = above.parent_path();
            }
            if (byFolder.at(folder) != id) {
                add(error, "same-target", line, detector.id,
                    "detectors " + byFolder.at(folder) + " and " + id + " have one target, " +
                        inQuotes(folder) + ": files of the same name overwrite each other",
                    "give each detector a target of its own");
            } else if (above.has_relative_path()) {
                add(warning, "nested-target", line, detector.id,
                    "the target of detector " + id + ", " + inQuotes(folder) +
                        ", lies inside that of detector " + byFolder.at(above.string()),
                    "use targets that lie beside each other");
            }
        }
    }
};

} // namespace

nlohmann::ordered_json settingsOf(const Configuration& configuration) {
    return {{"logfile", configuration.logFileName},
            {"logfile_max_size", configuration.logFileMaxSize},
            {"logfile_max_number", configuration.logFileMaxNumber},
            {"uid", configuration.uid},
            {"gid", configuration.gid},
            {"usrdir", configuration.usrdir}};
}

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
    std::string nearest;
    std::size_t least = word.size() > longest ? 0 : 2 + word.size() / 4;
    for (const Key& key : allKeys()) {
        const bool isStem = word.size() >= shortestStem &&
                            strncasecmp(key.name.c_str(), word.data(), word.size()) == 0;
        const std::size_t changes = isStem ? 1 : distance(word.substr(0, longest), key.name);
        if (changes < std::min(least, key.name.size())) {
            least = changes;
            nearest = key.name;
        }
    }
    return nearest;
}

bool isPlainWord(std::string_view text) {
    return !text.empty() && text.front() != '~' && text.front() != '#' && text.front() != '-' &&
           text.find_first_of("|&;<>()$`\\\"' \t\n\v\f\r*?[]{}") == std::string_view::npos;
}

std::string inQuotes(std::string_view text) {
    constexpr std::size_t longest = 80;
    return '"' + std::string(text.substr(0, longest)) + (text.size() > longest ? "...\"" : "\"");
}

Findings findInConfiguration(const ConfigView& view, const Configuration& start,
                             const std::vector<std::string>& startOptions,
                             const std::vector<std::string>& folders) {
    return Finder{view, start, startOptions, folders}.find();
}

} // namespace control
