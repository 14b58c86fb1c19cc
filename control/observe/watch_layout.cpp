// What the full-screen view shows, as lines of styled text: everything of it but the terminal.
#include "control/observe/watch_layout.h"

#include "control/observe/display_text.h"
#include "control/observe/verdict.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <functional>
#include <utility>

namespace control {

namespace {

constexpr int barColumns = 8;
constexpr int wideTable = 130;  // columns from which a detector has one line
constexpr int narrowTable = 60; // columns below which only the most important of it is shown

/// One line under construction: never wider than the screen.
class LineBuilder {
public:
    LineBuilder(int width, bool asUnicode) : left(width), unicode(asUnicode) {}

    int room() const { return left; }

    /// Adds text that may hold any byte.
    LineBuilder& add(Style style, const std::string& text) {
        return put(style, cutEnd(displayable(text, unicode), left, unicode));
    }

    /// The same, cut in the middle so as to take no more than that many columns.
    LineBuilder& addName(Style style, const std::string& text, int columns) {
        return put(style, cutMiddle(displayable(text, unicode), std::min(columns, left), unicode));
    }

    /// Fills up with blanks to that many columns from the left edge of the cell that began when
    /// `room()` was `from`.
    LineBuilder& fill(int from, int columns) {
        const int blanks = std::min(left, columns - (from - left));
        return blanks > 0 ? put(Style::normal, std::string(static_cast<std::size_t>(blanks), ' '))
                          : *this;
    }

    /// A cell of a table: the text, cut if need be, to the left or to the right, and a blank.
    LineBuilder& cell(Style style, const std::string& text, int columns, bool toTheRight = false) {
        const int from = left;
        const std::string shown =
            cutMiddle(displayable(text, unicode), std::min(columns, left), unicode);
        if (toTheRight) {
            fill(from, columns - displayWidth(shown));
        }
        put(style, shown);
        return fill(from, columns + 1);
    }

    Line take() { return std::move(line); }

private:
    LineBuilder& put(Style style, std::string text) {
        text = cutEnd(text, left, unicode);
        if (!text.empty()) {
            left -= displayWidth(text);
            line.push_back({style, std::move(text)});
        }
        return *this;
    }

    Line line;
    int left;
    bool unicode;
};

/// One line or more that are shown together or not at all.
struct Block {
    int rank = 0; // those of a lower one are found room for first
    std::vector<Line> lines;
    bool detector = false;
};

/// From what matters most to what matters least.
namespace rank {
constexpr int verdict = 0;
constexpr int moreOfVerdict = 1;
constexpr int tableHead = 2;
constexpr int firstDetector = 3;
constexpr int daemon = 4;
constexpr int files = 5;
constexpr int secondDetector = 6;
constexpr int counts = 7;
constexpr int pipe = 8;
constexpr int log = 9;
constexpr int furtherDetectors = 10; // the third and the fourth
constexpr int reasons = 11;
constexpr int unattributed = 12;
constexpr int complaint = 13;
constexpr int manyDetectors = 14;
constexpr int blank = 15;
} // namespace rank

std::string timeText(double seconds, const char* format) {
    const auto moment = static_cast<std::time_t>(seconds);
    std::tm parts{};
    std::array<char, 64> text{};
    if (localtime_r(&moment, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), format, &parts) == 0) {
        return "?";
    }
    return text.data();
}

Style styleOf(Verdict::Level level) {
    switch (level) {
    case Verdict::Level::keepingUp:
        return Style::good;
    case Verdict::Level::attention:
    case Verdict::Level::cannotTell:
        return Style::warning;
    case Verdict::Level::notKeepingUp:
    case Verdict::Level::down:
        return Style::bad;
    }
    return Style::normal;
}

std::string stateText(DetectorSnapshot::State state) {
    switch (state) {
    case DetectorSnapshot::State::notServed:
        return "not served";
    case DetectorSnapshot::State::listing:
        return "listing";
    case DetectorSnapshot::State::copying:
        return "copying";
    case DetectorSnapshot::State::idle:
        return "idle";
    }
    return "?";
}

std::string joined(const std::vector<std::string>& words, const char* separator) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : separator) + word;
    }
    return text;
}

/// The words of a displayable text in lines of so many columns, the first one of another number.
std::vector<std::string> wrapped(const std::string& text, int first, int others) {
    std::vector<std::string> lines(1);
    std::size_t position = 0;
    while (position < text.size()) {
        const std::size_t end = std::min(text.find(' ', position), text.size());
        const std::string word = text.substr(position, end - position);
        std::string& last = lines.back();
        const int room = lines.size() == 1 ? first : others;
        if (!last.empty() && displayWidth(last) + 1 + displayWidth(word) > room) {
            lines.push_back(word);
        } else {
            last += (last.empty() ? "" : " ") + word;
        }
        position = end + 1;
    }
    return lines;
}

/// Lays the figures out.
class Figures {
public:
    Figures(const Snapshot& aSnapshot, const View& aView)
        : snapshot(aSnapshot), view(aView), judgement(verdict(aSnapshot)) {}

    Layout layOut() {
        makeBlocks();
        const std::vector<bool> chosen = choose();
        return arrange(chosen);
    }

private:
    LineBuilder line() const { return {view.width, view.unicode}; }

    void add(int rank, std::vector<Line> lines, bool detector = false) {
        blocks.push_back({rank, std::move(lines), detector});
    }

    void addBlank() { add(rank::blank, {Line{}}); }

    void makeBlocks() {
        addVerdict();
        addReasons();
        add(rank::daemon, {daemonLine()});
        addBlank();
        add(rank::files, {filesLine()});
        add(rank::counts, {countsLine()});
        addBlank();
        add(rank::tableHead, {}); // made when it is known which detectors are shown
        for (std::size_t index = 0; index < snapshot.detectors.size(); ++index) {
            const int importance = index == 0   ? rank::firstDetector
                                   : index == 1 ? rank::secondDetector
                                   : index < 4  ? rank::furtherDetectors
                                                : rank::manyDetectors;
            add(importance, detectorLines(snapshot.detectors[index]), true);
        }
        addUnattributed();
        addBlank();
        add(rank::pipe, {pipeLine()});
        add(rank::log, {logLine()});
        addComplaint();
    }

    // The lines.

    /// The verdict with its gravest reason, which may take a line or two more.
    void addVerdict() {
        LineBuilder built = line();
        const Style style = styleOf(judgement.level);
        built.add(style, headline(judgement.level));
        if (judgement.reasons.empty()) {
            const std::string how = progressText();
            built.add(Style::normal, how.empty() ? "" : ": " + how);
            add(rank::verdict, {built.take()});
            return;
        }
        built.add(Style::normal, ": ");
        const std::vector<std::string> parts = wrapped(
            displayable(judgement.reasons.front(), view.unicode), built.room(), view.width - 4);
        for (std::size_t index = 0; index < parts.size() && index < 3; ++index) {
            built.add(Style::normal, index == 0 ? parts[index] : "    " + parts[index]);
            add(index == 0 ? rank::verdict : rank::moreOfVerdict, {built.take()});
            built = line();
        }
    }

    std::string progressText() const {
        if (snapshot.recent.file && *snapshot.recent.file < 300) {
            return "files are coming in";
        }
        if (snapshot.recent.fruitless) {
            return "copy processes run";
        }
        if (snapshot.recent.watched >= 5) {
            return "nothing to copy for the last " +
                   durationText(snapshot.recent.file.value_or(snapshot.recent.watched));
        }
        return "";
    }

    void addReasons() {
        if (judgement.reasons.empty()) {
            return;
        }
        const std::vector<std::string> others(judgement.reasons.begin() + 1,
                                              judgement.reasons.end());
        constexpr std::size_t most = 3;
        for (std::size_t index = 0; index < others.size() && index < most; ++index) {
            const bool last = index + 1 == most && others.size() > most;
            LineBuilder built = line();
            built.add(Style::dim, "  - ");
            built.add(Style::normal, others[index]);
            if (last) {
                built.add(Style::dim, "; and " + grouped(others.size() - most) + " more");
            }
            add(rank::reasons, {built.take()});
        }
    }

    Line daemonLine() const {
        LineBuilder built = line();
        if (snapshot.daemonState == Snapshot::DaemonState::running) {
            built.add(Style::normal, "Daemon " + std::to_string(snapshot.pid));
            if (snapshot.upSince) {
                built.add(Style::normal,
                          " up " + durationText(snapshot.time - *snapshot.upSince) + " (since " +
                              timeText(*snapshot.upSince, "%Y-%m-%d %H:%M:%S") + ")");
            }
            built.add(Style::dim, snapshot.startOptions.empty()
                                      ? std::string(", no start options")
                                      : ", options " + joined(snapshot.startOptions, " "));
        } else {
            built.add(Style::normal, snapshot.daemonState == Snapshot::DaemonState::unknown
                                         ? "Whether a daemon runs can't be seen."
                                         : "No daemon runs. The counts are those of the last one.");
        }
        return built.take();
    }

    Line filesLine() const {
        LineBuilder built = line();
        built.add(Style::heading, "Files ").add(Style::normal, grouped(snapshot.total.files));
        if (snapshot.rates.lastSeconds) {
            built.add(Style::normal, "  " + rateText(*snapshot.rates.lastSeconds) + "/s");
            built.add(Style::dim, " now");
        }
        if (snapshot.rates.lastMinutes) {
            built.add(Style::normal, "  " + rateText(*snapshot.rates.lastMinutes) + "/s");
            built.add(Style::dim, " over 5 min");
        }
        const std::vector<double>& history = snapshot.rates.history;
        if (!history.empty()) {
            const double highest = *std::max_element(history.begin(), history.end());
            const std::string scale = "  peak " + rateText(highest) + "/s";
            const int columns = std::min<int>(60, built.room() - 2 - displayWidth(scale));
            if (columns >= 8) {
                built.add(Style::normal, "  ");
                built.add(Style::bar, sparkline(history, columns, view.unicode));
                built.add(Style::dim, scale);
            }
        }
        return built.take();
    }

    Line countsLine() const {
        const Counts& total = snapshot.total;
        LineBuilder built = line();
        const auto figure = [this, &built](const char* name, std::uint64_t number, Style ifAny) {
            const bool stands = number > 0 && ifAny != Style::normal;
            const std::string text = grouped(number) + (stands ? "!" : "");
            const std::string title =
                std::string(built.room() < view.width ? "  " : "") + name + " ";
            if (displayWidth(title) + displayWidth(text) <= built.room()) {
                built.add(Style::dim, title).add(number > 0 ? ifAny : Style::normal, text);
            }
        };
        figure("lost", total.lost, Style::bad);
        figure("not announced", total.failedHandoffs, Style::bad);
        figure("no pipe", total.withoutPipe, Style::warning);
        figure("failed starts", total.failedStarts + total.failedListings, Style::warning);
        figure("complaints", total.complaints, Style::warning);
        figure("cycles", total.cycles, Style::normal);
        figure("processes", total.processes, Style::normal);
        return built.take();
    }

    bool wide() const { return view.width >= wideTable; }
    bool narrow() const { return view.width < narrowTable; }
    int idColumns() const { return wide() ? 12 : narrow() ? 8 : 10; }

    Line tableHead(int firstShown, int shown) const {
        LineBuilder built = line();
        const auto all = static_cast<int>(snapshot.detectors.size());
        built.cell(Style::heading, "DETECTOR", idColumns());
        built.cell(Style::heading, "STATE", 10);
        if (!narrow()) {
            built.cell(Style::heading, "PROCESSES", barColumns + 4);
        }
        built.cell(Style::heading, "FILES", 11, true);
        if (!narrow()) {
            built.cell(Style::heading, "CYCLES", 8, true);
        }
        built.cell(Style::heading, "LOST", 6, true);
        if (wide()) {
            built.cell(Style::heading, "FREE AT TARGET", spaceColumns);
        }
        if (narrow()) {
            return built.take();
        }
        if (shown < all) {
            built.add(Style::warning, std::to_string(firstShown + 1) + "-" +
                                          std::to_string(firstShown + shown) + " of " +
                                          std::to_string(all) + " (j/k)");
        } else {
            built.add(Style::heading, "LAST FILE");
        }
        return built.take();
    }

    void addProcesses(LineBuilder& built, const DetectorSnapshot& detector) const {
        const int from = built.room();
        const int limit = snapshot.processLimit.value_or(0);
        const double part = limit > 0 ? static_cast<double>(detector.copyProcesses) / limit : 0;
        built.add(Style::bar, bar(part, barColumns, view.unicode));
        built.add(Style::normal,
                  " " + std::to_string(detector.copyProcesses) + "/" +
                      (snapshot.processLimit ? std::to_string(*snapshot.processLimit) : "?"));
        built.fill(from, barColumns + 5);
    }

    void addSpace(LineBuilder& built, const DetectorSnapshot& detector, bool whole) const {
        if (!detector.freeBytes || !detector.totalBytes || *detector.totalBytes == 0) {
            built.add(Style::dim, "free space can't be seen");
            return;
        }
        const double free =
            static_cast<double>(*detector.freeBytes) / static_cast<double>(*detector.totalBytes);
        built.add(Style::bar, bar(1 - free, barColumns, view.unicode));
        const bool tight = free < 0.02;
        built.add(tight ? Style::bad : Style::normal, " " + byteText(*detector.freeBytes));
        built.add(Style::normal,
                  (whole ? " of " + byteText(*detector.totalBytes) : std::string()) + " free");
        if (tight) {
            built.add(Style::bad, "!");
        }
        if (detector.secondsUntilFull) {
            built.add(Style::normal, ", ");
            const double left = *detector.secondsUntilFull;
            built.add(left < 3600        ? Style::bad
                      : left < 24 * 3600 ? Style::warning
                                         : Style::dim,
                      "full in " + durationText(left));
        }
    }

    std::vector<Line> detectorLines(const DetectorSnapshot& detector) const {
        LineBuilder built = line();
        built.cell(Style::normal, detector.id, idColumns());
        Style stateStyle = Style::normal;
        if (detector.state == DetectorSnapshot::State::copying) {
            stateStyle = Style::good;
        } else if (detector.state == DetectorSnapshot::State::notServed) {
            stateStyle = Style::bad;
        } else {
            stateStyle = Style::dim;
        }
        built.cell(stateStyle, stateText(detector.state), 10);
        if (!narrow()) {
            addProcesses(built, detector);
        }
        built.cell(Style::normal, grouped(detector.counts.files), 11, true);
        if (!narrow()) {
            built.cell(Style::normal, grouped(detector.counts.cycles), 8, true);
        }
        addLost(built, detector.counts.lost);
        if (narrow()) {
            return {built.take()};
        }
        if (wide()) {
            const int from = built.room();
            addSpace(built, detector, false);
            built.fill(from, spaceColumns + 1);
            built.addName(Style::normal, detector.lastFile, built.room());
            return {built.take()};
        }
        built.addName(Style::normal, detector.lastFile, built.room());
        LineBuilder second = line();
        second.add(Style::normal, "  ");
        addSpace(second, detector, true);
        second.add(Style::dim, "  ").addName(Style::dim, detector.target, second.room());
        return {built.take(), second.take()};
    }

    static void addLost(LineBuilder& built, std::uint64_t lost) {
        built.cell(lost > 0 ? Style::bad : Style::normal, grouped(lost) + (lost > 0 ? "!" : ""), 6,
                   true);
    }

    void addUnattributed() {
        const Counts& counts = snapshot.unattributed;
        if (counts.reports == 0 && counts.files == 0 && counts.lost == 0 &&
            counts.complaints == 0) {
            return;
        }
        LineBuilder built = line();
        const int name = idColumns() + 1 + 10 + (narrow() ? 0 : 1 + barColumns + 4);
        built.cell(Style::dim, narrow() ? "not known" : "not known (several copied)", name);
        built.cell(Style::normal, grouped(counts.files), 11, true);
        if (!narrow()) {
            built.cell(Style::normal, "", 8);
        }
        addLost(built, counts.lost);
        if (wide()) {
            built.cell(Style::normal, "", spaceColumns);
        }
        if (!narrow()) {
            built.addName(Style::normal, snapshot.lastFile, built.room());
        }
        add(rank::unattributed, {built.take()});
    }

    Line pipeLine() const {
        LineBuilder built = line();
        built.add(Style::heading, "Pipe ");
        switch (snapshot.pipe.state) {
        case PipeSnapshot::State::absent:
            built.add(Style::bad, "absent!");
            break;
        case PipeSnapshot::State::notAPipe:
            built.add(Style::bad, "not a pipe!");
            break;
        case PipeSnapshot::State::noReader:
            built.add(Style::bad, "no reader!");
            break;
        case PipeSnapshot::State::read:
            built.add(Style::good, "read")
                .add(Style::normal, " by " + joined(snapshot.pipe.readers, ", "));
            break;
        case PipeSnapshot::State::unknown:
            built.add(Style::warning, "reader unknown: only root can see it");
            break;
        }
        built.add(Style::dim, "  ").addName(Style::dim, snapshot.pipe.path, built.room());
        return built.take();
    }

    Line logLine() const {
        const LogSnapshot& log = snapshot.log;
        LineBuilder built = line();
        built.add(Style::heading, "Log  ");
        if (log.coverage == LogCoverage::none) {
            built.add(Style::bad, "not read!");
            built.add(Style::normal, log.problem.empty() ? std::string() : " " + log.problem);
            return built.take();
        }
        if (log.limit > 0) {
            const double part = static_cast<double>(log.bytes) / static_cast<double>(log.limit);
            built.add(Style::bar, bar(part, barColumns, view.unicode));
            built.add(Style::normal, " " + byteText(log.bytes) + " of " +
                                         byteText(static_cast<std::uint64_t>(log.limit)));
        } else {
            built.add(Style::normal,
                      byteText(log.bytes) + (log.limit < 0 ? ", never rotated" : ""));
        }
        built.add(Style::normal, "  ");
        switch (log.coverage) {
        case LogCoverage::sinceStart:
            built.add(Style::good, "counts since the start");
            break;
        case LogCoverage::sinceOldest:
            built.add(Style::warning, "counts too low: its beginning is rotated away");
            break;
        case LogCoverage::withGap:
            built.add(Style::warning, "counts too low: lines were missed");
            break;
        case LogCoverage::none:
            break;
        }
        built.add(Style::dim, "  " + std::to_string(log.archives) +
                                  (log.archives == 1 ? " archive, " : " archives, ") +
                                  grouped(log.rotations) +
                                  (log.rotations == 1 ? " rotation seen" : " rotations seen"));
        built.add(Style::dim, "  ").addName(Style::dim, log.path, built.room());
        return built.take();
    }

    void addComplaint() {
        if (snapshot.lastComplaint.empty()) {
            return;
        }
        LineBuilder built = line();
        built.add(Style::heading, "Last complaint ").add(Style::warning, snapshot.lastComplaint);
        add(rank::complaint, {built.take()});
    }

    Line keysLine(const std::string& position) const {
        LineBuilder built = line();
        const std::string clock = timeText(snapshot.time, "%H:%M:%S");
        built.add(Style::warning, position);
        if (view.paused) {
            built.add(Style::warning, "PAUSED at " + clock + "  ");
        }
        built.add(Style::dim, "q quit  h help  space " +
                                  std::string(view.paused ? "go on" : "pause") + "  r redraw");
        // The last column of the last line stays free: some terminals scroll when it is written.
        const int room = built.room() - 1 - displayWidth(clock);
        if (!view.paused && room >= 2) {
            built.add(Style::dim, std::string(static_cast<std::size_t>(room), ' ') + clock);
        }
        return built.take();
    }

    // Finding room.

    std::vector<bool> choose() const {
        std::vector<std::size_t> order(blocks.size());
        for (std::size_t index = 0; index < order.size(); ++index) {
            order[index] = index;
        }
        std::stable_sort(order.begin(), order.end(), [this](std::size_t one, std::size_t other) {
            return blocks[one].rank < blocks[other].rank;
        });
        int room = view.height - 1; // the line of keys
        std::vector<bool> chosen(blocks.size(), false);
        for (const std::size_t index : order) {
            // The table's head is made later, and has one line.
            const int lines = blocks[index].rank == rank::tableHead
                                  ? 1
                                  : static_cast<int>(blocks[index].lines.size());
            if (lines <= room) {
                chosen[index] = true;
                room -= lines;
            }
        }
        return chosen;
    }

    Layout arrange(const std::vector<bool>& chosen) const {
        std::vector<const Block*> detectors;
        int shown = 0;
        for (std::size_t index = 0; index < blocks.size(); ++index) {
            if (blocks[index].detector) {
                detectors.push_back(&blocks[index]);
                shown += chosen[index] ? 1 : 0;
            }
        }
        Layout layout;
        const auto all = static_cast<int>(detectors.size());
        layout.maxScroll = shown > 0 ? all - shown : 0;
        const int first = std::clamp(view.scroll, 0, layout.maxScroll);
        int next = first;
        for (std::size_t index = 0; index < blocks.size(); ++index) {
            if (!chosen[index]) {
                continue;
            }
            const Block* block = &blocks[index];
            if (block->detector) {
                block = detectors[static_cast<std::size_t>(next)];
                ++next;
            }
            if (block->rank == rank::tableHead) {
                layout.lines.push_back(tableHead(first, shown));
            }
            layout.lines.insert(layout.lines.end(), block->lines.begin(), block->lines.end());
        }
        const auto height = static_cast<std::size_t>(std::max(0, view.height));
        if (height > 0) {
            layout.lines.resize(std::max(layout.lines.size(), height - 1));
            const bool unseen = narrow() && shown < all;
            layout.lines.push_back(keysLine(
                unseen ? std::to_string(shown) + " of " + std::to_string(all) + " (j/k)  " : ""));
        }
        layout.lines.resize(height);
        return layout;
    }

    static constexpr int spaceColumns = 43;

    const Snapshot& snapshot;
    const View& view;
    const Verdict judgement;
    std::vector<Block> blocks;
};

/// The help: a term and what is to be known of it.
struct Explanation {
    const char* term;
    const char* text;
};

constexpr std::array<Explanation, 23> explanations{{
    {"Keys", ""},
    {"q, Ctrl-C", "quit; the daemon is not touched by anything that is done here"},
    {"h, ?", "these explanations, and back"},
    {"space", "pause: the screen stands still until the next space"},
    {"j k, arrows, PgUp PgDn, Home End", "scroll the detectors, or this text"},
    {"r, Ctrl-L", "draw the screen again"},
    {"First line", ""},
    {"KEEPING UP", "the daemon runs and nothing is known to hinder it"},
    {"KEEPING UP, BUT", "something happened, or is going to: look at it by day"},
    {"NOT KEEPING UP", "files stay at their detector, or are announced to nobody. Faults count "
                       "for five minutes after they were last seen"},
    {"CAN'T TELL", "the daemon runs, but its log or its configuration can't be read"},
    {"DOWN", "no daemon runs"},
    {"Figures", "counted in the log since the daemon's last start"},
    {"Files", "copied and confirmed. A file counts when its copy process has ended: while "
              "large files are being copied, nothing seems to come"},
    {"/s", "the log bears no time, so rates begin when this view begins. The row of bars "
           "is the last 60 seconds"},
    {"lost", "sent but never confirmed. They mostly stay at their detector, and the next cycle "
             "fetches them again: see whether the number grows"},
    {"not announced", "copied, but the consumer was not told: the log has their names"},
    {"no pipe", "copy processes that found no pipe and announced none of their files"},
    {"complaints", "other lines that copy processes printed, such as errors of rsync"},
    {"Detectors", "the log names no detector in the block of a copy process. A block counts for "
                  "one when no other can have left it; the others stand under 'not "
                  "known'. The last file may therefore be older than the last one that was copied"},
    {"PROCESSES", "copy processes now, of those that one detector may have"},
    {"FREE AT TARGET", "the bar is what is used. 'full in' goes by the rate of the last minutes, "
                       "and counts what others write there too"},
    {"Pipe", "who has it open for reading. That somebody has does not mean that he reads"},
}};

Layout layOutHelp(const View& view) {
    std::vector<Line> text;
    const bool narrow = view.width < narrowTable;
    const int indent = narrow ? 2 : 20;
    for (const Explanation& each : explanations) {
        const std::string term = each.term;
        const std::string explanation = each.text;
        const bool heading = explanation.empty();
        if (heading && !text.empty()) {
            text.emplace_back();
        }
        LineBuilder first(view.width, view.unicode);
        first.add(heading ? Style::heading : Style::normal, term);
        if (narrow || heading || static_cast<int>(term.size()) >= indent) {
            text.push_back(first.take());
            first = LineBuilder(view.width, view.unicode);
        }
        if (heading) {
            continue;
        }
        for (const std::string& part :
             wrapped(explanation, view.width - indent, view.width - indent)) {
            first.fill(view.width, indent).add(Style::dim, part);
            text.push_back(first.take());
            first = LineBuilder(view.width, view.unicode);
        }
    }
    Layout layout;
    const int room = std::max(0, view.height - 1);
    layout.maxScroll = std::max(0, static_cast<int>(text.size()) - room);
    const int top = std::clamp(view.scroll, 0, layout.maxScroll);
    const int end = std::min(top + room, static_cast<int>(text.size()));
    layout.lines.assign(text.begin() + top, text.begin() + end);
    layout.lines.resize(static_cast<std::size_t>(room));
    if (view.height > 0) {
        LineBuilder keys(view.width - 1, view.unicode);
        keys.add(Style::dim, "h back  q quit");
        if (layout.maxScroll > 0) {
            keys.add(Style::warning, top < layout.maxScroll ? "  j more" : "  k back up");
        }
        layout.lines.push_back(keys.take());
    }
    return layout;
}

} // namespace

std::string sparkline(const std::vector<double>& values, int columns, bool unicode) {
    static constexpr std::array<const char*, 9> blocks{" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static constexpr std::array<const char*, 9> letters{" ", "_", ".", ":", "-",
                                                        "=", "+", "*", "#"};
    const auto& steps = unicode ? blocks : letters;
    const std::size_t room = columns > 0 ? static_cast<std::size_t>(columns) : 0;
    const std::size_t shown = std::min(values.size(), room);
    const auto begin = values.end() - static_cast<std::ptrdiff_t>(shown);
    double highest = 0;
    for (auto value = begin; value != values.end(); ++value) {
        highest = std::max(highest, *value);
    }
    std::string row(room - shown, ' ');
    for (auto value = begin; value != values.end(); ++value) {
        // A little is not nothing.
        const double height = highest > 0 && *value > 0 ? *value / highest * 8 : 0;
        const auto step = static_cast<std::size_t>(std::ceil(std::clamp(height, 0.0, 8.0)));
        row += steps[step];
    }
    return row;
}

std::string bar(double part, int columns, bool unicode) {
    if (!(part > 0)) {
        part = 0;
    }
    int full = static_cast<int>(std::lround(std::min(part, 1.0) * columns));
    if (part > 0) {
        full = std::max(full, 1);
    }
    if (part < 1) {
        full = std::min(full, columns - 1);
    }
    std::string text;
    for (int column = 0; column < columns; ++column) {
        text += column < full ? (unicode ? "█" : "#") : (unicode ? "░" : ".");
    }
    return text;
}

std::string plainText(const Line& line) {
    std::string text;
    for (const Segment& segment : line) {
        text += segment.text;
    }
    return text;
}

Layout layOut(const Snapshot& snapshot, const View& view) {
    View usable = view;
    usable.width = std::max(1, view.width);
    usable.height = std::max(0, view.height);
    return usable.help ? layOutHelp(usable) : Figures(snapshot, usable).layOut();
}

} // namespace control
