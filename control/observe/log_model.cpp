// What the daemon's log says happened since its last start: counts, in total and per detector.
#include "control/observe/log_model.h"

#include "daemon/global.h"
#include "utilities/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>

namespace control {

namespace {

constexpr std::string_view beginMark = "++ RSYNC OUTPUT BEGIN ++++++++++++++++++";
constexpr std::string_view endMark = "++ RSYNC OUTPUT END ++++++++++++++++++++";

/// What is kept of the last line of a block: its end, since that is where a summary stands. The
/// longest summary is far below it.
constexpr std::size_t longestHeld = 16384;

/// What is kept of a name or a line to be shown.
constexpr std::size_t longestShown = 1024;

/// Blocks kept to be attributed later. A cycle leaves eight at most.
constexpr std::size_t mostOpenBlocks = 4096;

/// The fields of Counts, for what is done to all of them.
constexpr std::array<std::uint64_t Counts::*, 12> countFields = {
    &Counts::cycles,      &Counts::processes,   &Counts::failedStarts,   &Counts::reports,
    &Counts::files,       &Counts::lost,        &Counts::complaints,     &Counts::failedHandoffs,
    &Counts::withoutPipe, &Counts::longRecords, &Counts::failedListings, &Counts::failedRemovals,
};

void add(Counts& counts, const Counts& more) {
    for (const auto field : countFields) {
        counts.*field += more.*field;
    }
}

void subtract(Counts& counts, const Counts& less) {
    for (const auto field : countFields) {
        counts.*field -= less.*field;
    }
}

bool startsWith(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

bool endsWith(std::string_view text, std::string_view ending) {
    return text.size() >= ending.size() && text.substr(text.size() - ending.size()) == ending;
}

bool isBlank(std::string_view text) {
    return std::all_of(text.begin(), text.end(), UTILITIES::isSpace);
}

/// Of names: one word, as the daemon takes them out of a report.
bool isWord(std::string_view text) {
    return !text.empty() && std::none_of(text.begin(), text.end(), UTILITIES::isSpace);
}

/// The text between a beginning and an ending; nothing if it has not both.
std::optional<std::string_view> between(std::string_view text, std::string_view beginning,
                                        std::string_view ending) {
    if (text.size() < beginning.size() + ending.size() || !startsWith(text, beginning) ||
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
    return isBlank(line) || line == "receiving incremental file list" ||
           startsWith(line, "receiving file list ...") ||
           (startsWith(line, "sent ") && endsWith(line, " bytes/sec")) ||
           (startsWith(line, "total size is ") &&
            line.find("  speedup is ") != std::string_view::npos) ||
           startsWith(line, "created directory ") ||
           (startsWith(line, "created ") && line.find(" directory for ") != std::string_view::npos);
}

} // namespace

void LogModel::setDetectors(const std::vector<std::string>& ids, bool complete) {
    configured = ids;
    configuredComplete = complete;
    for (const std::string& id : ids) {
        if (known.find(id) == known.end()) {
            known[id];
            // Behind the banner the daemon names those that it serves before they log anything.
            expected[id].cycle =
                namedByDaemon && !gap ? Expected::Cycle::none : Expected::Cycle::unknown;
        }
    }
}

void LogModel::feed(std::string_view lines) {
    while (!lines.empty()) {
        const std::size_t end = lines.find('\n');
        takeLine(lines.substr(0, end));
        lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
    }
}

Counts LogModel::undecided() const {
    Counts sum;
    for (const OpenBlock& block : openBlocks) {
        add(sum, block.counts);
    }
    return sum;
}

void LogModel::lostTrack() {
    gap = true;
    releaseLost();
    inBlock = false;
    doubtful = false;
    bannerStage = 0;
    inSettings = false;
    for (auto& [id, detector] : known) {
        detector.copying = false; // its end may be among the missing lines
    }
    doubtAll();
}

void LogModel::takeLine(std::string_view line) {
    if (inBlock) {
        takeInside(line);
    } else {
        takeOutside(line);
    }
}

void LogModel::takeOutside(std::string_view line) {
    if (endsWith(line, beginMark)) {
        beginBlock();
        // What stands in front of it is the rest of a text that was cut off when the disk was full.
        doubtful = line.size() > beginMark.size();
        return;
    }
    const auto lost = between(line, "Error: Lost ", "");
    if (lost && isWord(*lost)) {
        ++lostLines;
        return;
    }
    releaseLost();
    if (endsWith(line, endMark)) {
        doubtAll();
        return;
    }
    if (takeBanner(line)) {
        return;
    }
    if (startsWith(line, "++ ")) {
        takeOwnLine(line);
    }
    takeWorkerLine(line);
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
    } else if (bannerStage == 3 && date) {
        startAfresh(*date);
        return true;
    } else {
        bannerStage = 0;
    }
    return false;
}

void LogModel::startAfresh(std::string_view date) {
    const std::uint64_t startsSoFar = banners;
    const std::vector<std::string> ids = std::move(configured);
    const bool complete = configuredComplete;
    *this = LogModel();
    banners = startsSoFar + 1;
    namedByDaemon = true;
    inSettings = true;
    bannerDate = date.substr(0, longestShown);
    setDetectors(ids, complete);
}

/// Lines of the daemon and of those who hand the files on.
void LogModel::takeOwnLine(std::string_view line) {
    if (line == "++ Warning: No pipe to VANTREL") {
        placeEvent(&Counts::withoutPipe);
    } else if (const auto failed = between(line, "++ Error: Failed to pass ", " to VANTREL");
               failed && (failed->empty() || isWord(*failed))) {
        placeEvent(&Counts::failedHandoffs);
    } else if (startsWith(line, "++ Warning: Path to \"") &&
               line.find("\" is longer than ") != std::string_view::npos) {
        placeEvent(&Counts::longRecords);
    } else if (const auto id = between(line, "++ Starting copy thread for detector ", "");
               id && (id->empty() || isWord(*id))) {
        announce(*id);
    } else if (inSettings) {
        if (const auto file = between(line, "++ logfile: ", "")) {
            loggedSettings.logFile = file->substr(0, longestShown);
        } else if (const auto size = between(line, "++    max size of logfile: ", "")) {
            loggedSettings.maxSize = size->substr(0, longestShown);
        } else if (const auto number = between(line, "++    max # of backuped logfiles: ", "")) {
            loggedSettings.maxNumber = number->substr(0, longestShown);
        } else if (startsWith(line, "++ current directory: ")) {
            inSettings = false;
        }
    }
}

/// Lines of a detector's worker. An ID is one word, so that what stands in front of the first blank
/// is either the ID itself or the ID and a colon: no ID can be taken for another.
bool LogModel::takeWorkerLine(std::string_view line) {
    const std::size_t blank = line.find(' ');
    if (blank == std::string_view::npos) {
        return false;
    }
    std::string_view word = line.substr(0, blank);
    const std::string_view rest = line.substr(blank);
    if (const auto number = between(rest, " Starting ", " copy processes")) {
        if (!asNumber(*number) || known.find(word) == known.end()) {
            return false;
        }
        beginCycle(std::string(word));
        return true;
    }
    if (word.empty() || word.back() != ':') {
        return false;
    }
    word.remove_suffix(1);
    if (known.find(word) == known.end()) {
        return false;
    }
    const std::string id(word);
    if (startsWith(rest, " rsync call: ")) {
        startProcess(id);
    } else if (rest == " Error: Could not fork subprocess") {
        failStart(id);
    } else if (startsWith(rest, " Removed file ")) {
        endCycle(id);
    } else if (startsWith(rest, " Error: could not remove ")) {
        count(id, &Counts::failedRemovals);
        endCycle(id);
    } else if (rest == " Error: Listing failed") {
        count(id, &Counts::failedListings);
    } else {
        return false;
    }
    return true;
}

void LogModel::takeInside(std::string_view line) {
    if (endsWith(line, endMark)) {
        const std::string_view unfinished = line.substr(0, line.size() - endMark.size());
        if (unfinished.empty()) {
            endBlock(held, true);
        } else {
            // The last line of the output had no line feed. The summary always has one.
            if (hasHeld) {
                takeOutput(held);
            }
            endBlock(unfinished, false);
        }
        return;
    }
    if (hasHeld) {
        takeOutput(held);
    }
    doubtful = doubtful || endsWith(line, beginMark);
    held = line.substr(line.size() - std::min(line.size(), longestHeld));
    hasHeld = true;
}

void LogModel::beginBlock() {
    inBlock = true;
    hasHeld = false;
    held.clear();
    complaints = 0;
}

/// Takes a line that the copy program printed.
void LogModel::takeOutput(std::string_view line) {
    if (!isOrdinary(line)) {
        ++complaints;
        newestComplaint = line.substr(0, longestShown);
    }
}

void LogModel::endBlock(std::string_view lastLine, bool mayBeSummary) {
    std::string lastFile;
    Counts counts;
    const std::optional<Summary> summary =
        mayBeSummary ? parseSummary(lastLine) : std::optional<Summary>();
    if (summary) {
        counts.files = summary->files;
        lastFile = summary->last.substr(0, longestShown);
        newestFile = lastFile;
    } else {
        takeOutput(lastLine);
    }
    counts.reports = 1;
    counts.lost = std::exchange(lostLines, 0);
    counts.complaints = std::exchange(complaints, 0);
    inBlock = false;
    hasHeld = false;
    held.clear();
    if (held.capacity() > longestShown) {
        held.shrink_to_fit();
    }
    if (std::exchange(doubtful, false)) {
        doubtAll();
    }
    placeBlock(counts, lastFile);
}

void LogModel::placeBlock(const Counts& counts, const std::string& lastFile) {
    ++blocks;
    add(totalCounts, counts);
    if (const std::string* const id = onlyCandidate()) {
        Expected& of = expected[*id];
        of.outstanding -= of.outstanding > 0 ? 1 : 0;
        own(*id, counts, lastFile, blocks);
        return;
    }
    add(unattributedCounts, counts);
    const bool mayBeSettled = std::any_of(expected.begin(), expected.end(), [](const auto& entry) {
        return entry.second.cycle == Expected::Cycle::open && entry.second.outstanding > 0;
    });
    if (mayBeSettled) {
        openBlocks.push_back({blocks, counts, lastFile});
        if (openBlocks.size() > mostOpenBlocks) {
            forgotten = openBlocks.front().number;
            openBlocks.erase(openBlocks.begin());
        }
    }
}

/// Counts one line that a reader of a report left before its block.
void LogModel::placeEvent(std::uint64_t Counts::*field) {
    ++(totalCounts.*field);
    if (const std::string* const id = onlyCandidate()) {
        ++(known[*id].counts.*field);
    } else {
        ++(unattributedCounts.*field);
    }
}

/// Lines about lost files that stand in front of no block.
void LogModel::releaseLost() {
    totalCounts.lost += lostLines;
    unattributedCounts.lost += lostLines;
    lostLines = 0;
}

/// The one detector that can have left a report now; null if there are several, or if none should.
const std::string* LogModel::onlyCandidate() const {
    if (!configuredComplete && !namedByDaemon) {
        return nullptr;
    }
    if (known.size() == 1) {
        return &known.begin()->first;
    }
    const std::string* only = nullptr;
    for (const auto& [id, of] : expected) {
        if (of.cycle != Expected::Cycle::unknown && of.outstanding == 0) {
            continue;
        }
        if (only != nullptr) {
            return nullptr;
        }
        only = &id;
    }
    return only;
}

void LogModel::own(const std::string& id, const Counts& counts, const std::string& lastFile,
                   std::uint64_t number) {
    LoggedDetector& detector = known[id];
    add(detector.counts, counts);
    if (counts.files > 0 && number > expected[id].lastFile) {
        detector.lastFile = lastFile;
        expected[id].lastFile = number;
    }
}

void LogModel::count(const std::string& id, std::uint64_t Counts::*field) {
    ++(known[id].counts.*field);
    ++(totalCounts.*field);
}

void LogModel::beginCycle(const std::string& id) {
    count(id, &Counts::cycles);
    known[id].copying = true;
    Expected& of = expected[id];
    of.cycle = Expected::Cycle::open;
    of.outstanding = 0;
    of.begin = blocks;
    forgetClosedBlocks();
}

void LogModel::startProcess(const std::string& id) {
    count(id, &Counts::processes);
    known[id].copying = true;
    Expected& of = expected[id];
    if (of.cycle == Expected::Cycle::open) {
        ++of.outstanding;
    } else {
        of.cycle = Expected::Cycle::unknown;
    }
}

void LogModel::failStart(const std::string& id) {
    count(id, &Counts::failedStarts);
    Expected& of = expected[id];
    of.outstanding -= of.outstanding > 0 ? 1 : 0;
}

/// The first file list is gone, and so all reports of the cycle are in the log. The lines about the
/// other lists follow; by then there is nothing left to do.
void LogModel::endCycle(const std::string& id) {
    known[id].copying = false;
    Expected& of = expected[id];
    if (of.cycle == Expected::Cycle::open && of.outstanding > 0 && of.begin >= forgotten) {
        const auto first =
            std::find_if(openBlocks.begin(), openBlocks.end(),
                         [&of](const OpenBlock& block) { return block.number > of.begin; });
        if (static_cast<std::uint64_t>(openBlocks.end() - first) == of.outstanding) {
            for (auto block = first; block != openBlocks.end(); ++block) {
                subtract(unattributedCounts, block->counts);
                own(id, block->counts, block->lastFile, block->number);
            }
            openBlocks.erase(first, openBlocks.end());
        }
    }
    of.cycle = Expected::Cycle::none;
    of.outstanding = 0;
    forgetClosedBlocks();
}

/// Drops the blocks that no cycle can claim any more.
void LogModel::forgetClosedBlocks() {
    std::uint64_t oldest = blocks;
    for (const auto& [id, of] : expected) {
        if (of.cycle == Expected::Cycle::open && of.outstanding > 0) {
            oldest = std::min(oldest, of.begin);
        }
    }
    openBlocks.erase(openBlocks.begin(), std::find_if(openBlocks.begin(), openBlocks.end(),
                                                      [oldest](const OpenBlock& block) {
                                                          return block.number > oldest;
                                                      }));
}

void LogModel::announce(std::string_view id) {
    // Nobody has so many detectors; somebody may want us to think so.
    constexpr std::size_t mostDetectors = 4096;
    constexpr std::size_t longestId = 1024;
    if (known.size() >= mostDetectors || id.size() > longestId) {
        return;
    }
    if (known.find(id) == known.end()) {
        known[std::string(id)];
        expected[std::string(id)].cycle =
            namedByDaemon && !gap ? Expected::Cycle::none : Expected::Cycle::unknown;
    }
}

/// From now on any detector may leave any number of blocks, until a line of its own says more.
void LogModel::doubtAll() {
    for (auto& [id, of] : expected) {
        of.cycle = Expected::Cycle::unknown;
        of.outstanding = 0;
    }
    openBlocks.clear();
}

} // namespace control
