// What the daemon's log says happened since its last start, of all detectors together.
#include "control/observe/log_model.h"

#include "daemon/global.h"
#include "utilities/text.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>

namespace control {

namespace {

using UTILITIES::stringBegin;

constexpr std::string_view beginMark = "++ RSYNC OUTPUT BEGIN ++++++++++++++++++";
constexpr std::string_view endMark = "++ RSYNC OUTPUT END ++++++++++++++++++++";

/// What is kept of the last line of a block: its end, since that is where a summary stands. The
/// longest summary is far below it.
constexpr std::size_t longestHeld = 16384;

/// What is kept of a name or a line to be shown.
constexpr std::size_t longestShown = 1024;

constexpr std::size_t mostNames = 4096;

bool endsWith(std::string_view text, std::string_view ending) {
    return text.size() >= ending.size() && text.substr(text.size() - ending.size()) == ending;
}

/// Of names: one word, as the daemon takes them out of a report.
bool isWord(std::string_view text) {
    return !text.empty() && std::none_of(text.begin(), text.end(), UTILITIES::isSpace);
}

/// The text between a beginning and an ending; nothing if it has not both.
std::optional<std::string_view> between(std::string_view text, std::string_view beginning,
                                        std::string_view ending) {
    if (text.size() < beginning.size() + ending.size() || !stringBegin(text, beginning) ||
        !endsWith(text, ending)) {
        return std::nullopt;
    }
    return text.substr(beginning.size(), text.size() - beginning.size() - ending.size());
}

/// A decimal number as the daemon prints it: no sign, no leading zero.
std::optional<std::uint64_t> asNumber(std::string_view text) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    if (read.ec != std::errc() || read.ptr != end || (text.size() > 1 && text.front() == '0')) {
        return std::nullopt;
    }
    return number;
}

/// Cuts the last word off a text, with the one blank in front of it.
std::string_view takeLastWord(std::string_view& text) {
    const std::size_t blank = text.rfind(' ');
    const std::string_view word = text.substr(blank == std::string_view::npos ? 0 : blank + 1);
    text = text.substr(0, blank == std::string_view::npos ? 0 : blank);
    return word;
}

struct Summary {
    std::uint64_t files = 0;
    std::string_view last;
};

/// Reads "Copied N files in the range of: FIRST ... LAST". What a copy program printed without a
/// line feed may stand in front of it.
std::optional<Summary> parseSummary(std::string_view line) {
    Summary summary;
    summary.last = takeLastWord(line);
    if (!isWord(summary.last) || takeLastWord(line) != "..." || !isWord(takeLastWord(line)) ||
        !endsWith(line, " files in the range of:")) {
        return std::nullopt;
    }
    line.remove_suffix(std::string_view(" files in the range of:").size());
    // A count is an int in the daemon.
    const std::optional<std::uint64_t> files = asNumber(takeLastWord(line));
    if (!endsWith(line, "Copied") || !files || *files == 0 ||
        *files > std::numeric_limits<std::int32_t>::max()) {
        return std::nullopt;
    }
    summary.files = *files;
    return summary;
}

/// What rsync prints in each healthy run.
bool isOrdinary(std::string_view line) {
    return std::all_of(line.begin(), line.end(), UTILITIES::isSpace) ||
           line == "receiving incremental file list" ||
           stringBegin(line, "receiving file list ...") ||
           (stringBegin(line, "sent ") && endsWith(line, " bytes/sec")) ||
           (stringBegin(line, "total size is ") &&
            line.find("  speedup is ") != std::string_view::npos) ||
           stringBegin(line, "created directory ") ||
           (stringBegin(line, "created ") &&
            line.find(" directory for ") != std::string_view::npos);
}

void keep(std::set<std::string>& names, std::string_view name) {
    if (names.size() < mostNames) {
        names.emplace(name.substr(0, longestShown * 4));
    }
}

} // namespace

bool tellsCause(std::string_view line) {
    return !stringBegin(line, "rsync error: ") && !stringBegin(line, "rsync warning: ") &&
           !stringBegin(line, "rsync: connection unexpectedly closed");
}

void LogModel::takeLines(std::string_view lines) {
    while (!lines.empty()) {
        const std::size_t end = lines.find('\n');
        takeLine(lines.substr(0, end));
        lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
    }
}

void LogModel::takeGap() {
    gap = true;
    inBlock = false;
    bannerStage = 0;
}

void LogModel::takeLine(std::string_view line) {
    if (inBlock) {
        takeInside(line);
        return;
    }
    if (endsWith(line, beginMark)) {
        // What stands in front of it is the rest of a text that was cut off when the disk was full.
        inBlock = true;
        hasHeld = false;
        complaint.clear();
        return;
    }
    if (takeBanner(line)) {
        return;
    }
    if (const auto name = between(line, "Error: Lost ", ""); name && isWord(*name)) {
        ++total.lost;
        keep(lost, *name);
    } else if (stringBegin(line, "++ ")) {
        takeOwnLine(line);
    } else {
        takeWorkerLine(line);
    }
}

/// Recognises the banner by the lines that stand in it one after the other.
bool LogModel::takeBanner(std::string_view line) {
    constexpr std::size_t ruleLength = 78;
    const auto version = between(line, "++ " + GLOBAL::progName + " ", " started");
    const auto date = between(line, "++ on ", "");
    if (line.size() == ruleLength && line.find_first_not_of('+') == std::string_view::npos) {
        bannerStage = 1;
    } else if (bannerStage == 1 && line.empty()) {
        bannerStage = 2;
    } else if (bannerStage == 2 && version && isWord(*version)) {
        bannerStage = 3;
    } else if (bannerStage == 3 && date && (!isBanner || isBanner(*date))) {
        const std::uint64_t startsSoFar = banners;
        *this = LogModel(std::move(isBanner));
        banners = startsSoFar + 1;
        bannerDate = date->substr(0, longestShown);
        return true;
    } else {
        bannerStage = 0;
    }
    return false;
}

/// Lines of those who hand the files on.
void LogModel::takeOwnLine(std::string_view line) {
    if (line == "++ Warning: No pipe to VANTREL") {
        ++total.withoutPipe;
    } else if (const auto failed = between(line, "++ Error: Failed to pass ", " to VANTREL");
               failed && (failed->empty() || isWord(*failed))) {
        ++total.failedHandoffs;
        keep(unannounced, *failed);
    } else if (stringBegin(line, "++ Warning: Path to \"") &&
               line.find("\" is longer than ") != std::string_view::npos) {
        ++total.longRecords;
    }
}

/// Lines of a detector's worker: its ID, which is one word, mostly with a colon, and the rest.
void LogModel::takeWorkerLine(std::string_view line) {
    const std::size_t blank = line.find(' ');
    if (blank == std::string_view::npos) {
        return;
    }
    const std::string_view rest = line.substr(blank);
    if (const auto number = between(rest, " Starting ", " copy processes")) {
        total.cycles += asNumber(*number) ? 1 : 0;
    } else if (blank == 0 || line[blank - 1] != ':') {
        return;
    } else if (stringBegin(rest, " rsync call: ")) {
        ++total.processes;
    } else if (rest == " Error: Could not fork subprocess") {
        ++total.failedStarts;
    } else if (stringBegin(rest, " Error: could not remove ")) {
        ++total.failedRemovals;
    } else if (rest == " Error: Listing failed") {
        ++total.failedListings;
    }
}

void LogModel::takeInside(std::string_view line) {
    if (!endsWith(line, endMark)) {
        if (hasHeld) {
            takeOutput(held);
        }
        held = line.substr(line.size() - std::min(line.size(), longestHeld));
        hasHeld = true;
        return;
    }
    const std::string_view unfinished = line.substr(0, line.size() - endMark.size());
    if (unfinished.empty()) {
        endBlock(held, hasHeld);
        return;
    }
    // The last line of the output had no line feed. The summary always has one.
    if (hasHeld) {
        takeOutput(held);
    }
    endBlock(unfinished, false);
}

/// Takes a line that the copy program printed.
void LogModel::takeOutput(std::string_view line) {
    if (isOrdinary(line)) {
        return;
    }
    ++total.complaints;
    if (complaint.empty() || (!tellsCause && control::tellsCause(line))) {
        complaint = line.substr(0, longestShown);
        tellsCause = control::tellsCause(line);
    }
}

void LogModel::endBlock(std::string_view lastLine, bool mayBeSummary) {
    if (const auto summary = mayBeSummary ? parseSummary(lastLine) : std::optional<Summary>()) {
        total.files += summary->files;
        newestFile = summary->last.substr(0, longestShown);
        lost.erase(newestFile);
    } else if (!lastLine.empty()) {
        takeOutput(lastLine);
    }
    ++total.reports;
    if (!complaint.empty()) {
        newestComplaint = std::move(complaint);
        complaint.clear();
    }
    inBlock = false;
    hasHeld = false;
    held.clear();
    if (held.capacity() > longestShown) {
        held.shrink_to_fit();
    }
}

} // namespace control
