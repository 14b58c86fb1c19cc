// What the daemon's log says happened since its last start, of all detectors together.
#include "control/observe/log_model.h"

#include "daemon/global.h"
#include "utilities/text.h"

#include <algorithm>
#include <array>
#include <optional>
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

/// What the first "*" of a pattern, of "A", "A*B" or "A*B*", stands for in a text; nothing if the
/// text has not its form.
std::optional<std::string_view> captured(std::string_view text, std::string_view pattern) {
    const std::size_t star = pattern.find('*');
    if (star == std::string_view::npos) {
        return text == pattern ? std::optional(text.substr(text.size())) : std::nullopt;
    }
    if (!stringBegin(text, pattern.substr(0, star))) {
        return std::nullopt;
    }
    text.remove_prefix(star);
    pattern.remove_prefix(star + 1);
    if (!pattern.empty() && pattern.back() == '*') {
        const std::size_t end = text.find(pattern.substr(0, pattern.size() - 1));
        return end == std::string_view::npos ? std::nullopt : std::optional(text.substr(0, end));
    }
    return endsWith(text, pattern) ? std::optional(text.substr(0, text.size() - pattern.size()))
                                   : std::nullopt;
}

enum class Content { any, word, wordOrNothing, number };

/// A line outside blocks, and what it is for the account.
struct Line {
    std::string_view pattern; // with " " or ": " in front, of what stands behind a worker's ID
    Content content;          // what the first "*" has to stand for
    std::uint64_t Counts::*counted;
    std::set<std::string> LogAccount::*named = nullptr;
};

constexpr std::array<Line, 9> lines{{
    {"Error: Lost *", Content::word, &Counts::lost, &LogAccount::lost},
    {"++ Warning: No pipe to VANTREL", Content::any, &Counts::withoutPipe},
    {"++ Error: Failed to pass * to VANTREL", Content::wordOrNothing, &Counts::failedHandoffs,
     &LogAccount::unannounced},
    {"++ Warning: Path to \"*\" is longer than *", Content::any, &Counts::longRecords},
    {" Starting * copy processes", Content::number, &Counts::cycles},
    {": rsync call: *", Content::any, &Counts::processes},
    {": Error: Could not fork subprocess", Content::any, &Counts::failedStarts},
    {": Error: could not remove *", Content::any, &Counts::failedRemovals},
    {": Error: Listing failed", Content::any, &Counts::failedListings},
}};

/// What rsync prints in each healthy run.
constexpr std::array<std::string_view, 6> ordinary{
    "receiving incremental file list", "receiving file list ...*", "sent * bytes/sec",
    "total size is *  speedup is *",   "created directory *",      "created * directory for *"};

bool fits(std::string_view found, Content content) {
    return content == Content::any || (content == Content::word && isWord(found)) ||
           (content == Content::number && wholeNumber<int>(found)) ||
           (content == Content::wordOrNothing && (found.empty() || isWord(found)));
}

} // namespace

bool tellsCause(std::string_view line) {
    return !stringBegin(line, "rsync error: ") && !stringBegin(line, "rsync warning: ") &&
           !stringBegin(line, "rsync: connection unexpectedly closed");
}

void LogModel::takeGap() {
    total.hasGap = true;
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
    takeBanner(line);
    // A worker's ID is one word.
    const std::size_t idEnd = stringBegin(line, "++ ") ? line.size() : line.find(' ');
    const std::string_view behind = line.substr(std::min(idEnd, line.size()));
    const bool hasColon = !behind.empty() && idEnd > 0 && line[idEnd - 1] == ':';
    for (const Line& known : lines) {
        const char mark = known.pattern.front();
        const auto found = captured(mark == ' '               ? behind
                                    : mark == ':' && hasColon ? line.substr(idEnd - 1)
                                                              : line,
                                    known.pattern);
        if (!found || !fits(*found, known.content)) {
            continue;
        }
        ++(total.counts.*known.counted);
        if (known.named != nullptr && (total.*known.named).size() < mostNames) {
            (total.*known.named).emplace(found->substr(0, longestShown * 4));
        }
    }
}

/// Recognises the banner by the lines that stand in it one after the other.
void LogModel::takeBanner(std::string_view line) {
    static const std::array<std::string, 4> banner{
        std::string(78, '+'), "", "++ " + GLOBAL::progName + " * started", "++ on *"};
    const auto found = captured(line, banner[bannerStage]);
    if (!found || (bannerStage == 2 && !isWord(*found)) ||
        (bannerStage == 3 && isBanner && !isBanner(*found))) {
        bannerStage = line == banner[0] ? 1 : 0;
    } else if (++bannerStage == banner.size()) {
        const std::uint64_t startsSoFar = total.starts;
        total = {};
        total.starts = startsSoFar + 1;
        total.started = found->substr(0, longestShown);
        bannerStage = 0;
    }
}

void LogModel::takeInside(std::string_view line) {
    const bool isEnd = endsWith(line, endMark);
    line.remove_suffix(isEnd ? endMark.size() : 0);
    // If there is a text in front of END, the last line of the output had no line feed. The summary
    // always has one.
    if (hasHeld && !(isEnd && line.empty() && takeSummary(held))) {
        takeOutput(held);
    }
    hasHeld = !isEnd;
    if (!isEnd) {
        held = line.substr(line.size() - std::min(line.size(), longestHeld));
        return;
    }
    takeOutput(line);
    ++total.counts.reports;
    if (!complaint.empty()) {
        total.lastComplaint = std::exchange(complaint, {});
    }
    inBlock = false;
}

/// Takes a line that the copy program printed.
void LogModel::takeOutput(std::string_view line) {
    if (std::all_of(line.begin(), line.end(), UTILITIES::isSpace) ||
        std::any_of(ordinary.begin(), ordinary.end(),
                    [line](std::string_view form) { return captured(line, form).has_value(); })) {
        return;
    }
    ++total.counts.complaints;
    if (complaint.empty() || (!tellsCause(complaint) && tellsCause(line))) {
        complaint = line.substr(0, longestShown);
    }
}

/// Takes "Copied N files in the range of: FIRST ... LAST". What a copy program printed without a
/// line feed may stand in front of it. False if it is no such line.
bool LogModel::takeSummary(std::string_view line) {
    constexpr std::string_view beginning = "Copied ";
    constexpr std::string_view middle = " files in the range of: ";
    const std::size_t middleAt = line.rfind(middle);
    const std::size_t begin = line.rfind(beginning, middleAt);
    if (middleAt == std::string_view::npos || begin == std::string_view::npos) {
        return false;
    }
    const std::size_t number = begin + beginning.size();
    // A count is an int in the daemon.
    const auto files = wholeNumber<int>(line.substr(number, middleAt - std::min(number, middleAt)));
    const std::string_view names = line.substr(middleAt + middle.size());
    const auto first = captured(names, "* ... *");
    const std::string_view last = first ? names.substr(first->size() + 5) : "";
    if (!first || !isWord(*first) || !isWord(last) || !files) {
        return false;
    }
    total.counts.files += static_cast<std::uint64_t>(*files);
    total.lastFile = last.substr(0, longestShown);
    total.lost.erase(total.lastFile);
    return true;
}

} // namespace control
