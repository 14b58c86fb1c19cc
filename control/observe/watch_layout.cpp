// What the full-screen view shows, as lines of styled text: everything of it but the terminal.
#include "control/observe/watch_layout.h"

#include "control/display_text.h"
#include "control/observe/figures.h"
#include "control/observe/verdict.h"

#include <algorithm>
#include <array>
#include <cmath>
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
constexpr int complaint = 12;
constexpr int manyDetectors = 13;
constexpr int blank = 14;
} // namespace rank

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
    std::string text = nameOf(state);
    std::replace(text.begin(), text.end(), '_', ' ');
    return text;
}

Style styleOf(DetectorSnapshot::State state) {
    switch (state) {
    case DetectorSnapshot::State::copying:
        return Style::good;
    case DetectorSnapshot::State::notServed:
    case DetectorSnapshot::State::unreachable:
    case DetectorSnapshot::State::hanging:
        return Style::bad;
    case DetectorSnapshot::State::listing:
    case DetectorSnapshot::State::idle:
        break;
    }
    return Style::dim;
}

/// Millions of bytes a second.
std::string megabytes(double bytes) {
    return rateText(bytes / 1e6);
}

/// "17", "34 k", "2 M": so many that the rest does not matter.
std::string countText(std::uint64_t number) {
    return number < 10000     ? grouped(number)
           : number < 9500000 ? grouped(number / 1000) + " k"
                              : grouped(number / 1000000) + " M";
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
        return arrange(choose());
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
        addBlank();
        add(rank::pipe, {pipeLine()});
        add(rank::log, {logLine()});
        addComplaint();
    }

    // The lines.

    /// The verdict with its gravest reason, which may take a line or two more.
    void addVerdict() {
        LineBuilder built = line();
        built.add(styleOf(judgement.level), headline(judgement.level));
        std::string text =
            judgement.reasons.empty() ? progressText() : judgement.reasons.front().text;
        if (judgement.reasons.size() < 2 && !judgement.note.empty()) {
            text += (text.empty() ? "" : "; ") + judgement.note;
        }
        built.add(Style::normal, text.empty() ? "" : ": ");
        addWrapped(std::move(built), text, view.whole ? text.size() : 3, rank::verdict,
                   rank::moreOfVerdict);
    }

    /// A text of unknown origin in as many lines as are allowed, the first of which was begun.
    void addWrapped(LineBuilder built, const std::string& text, std::size_t most, int firstRank,
                    int otherRank) {
        const std::vector<std::string> parts =
            wrapped(displayable(text, view.unicode), built.room(), view.width - 4);
        for (std::size_t index = 0; index < parts.size() && index < std::max<std::size_t>(1, most);
             ++index) {
            built.add(Style::normal, index == 0 ? parts[index] : "    " + parts[index]);
            add(index == 0 ? firstRank : otherRank, {built.take()});
            built = line();
        }
    }

    std::string progressText() const {
        const std::string unsure =
            snapshot.isServed() && !snapshot.hasFigures
                ? ", as far as can be seen: the copy program does not say how its listings go"
                : "";
        if (snapshot.recent.file && *snapshot.recent.file < 300) {
            return "files are coming in" + unsure;
        }
        if (snapshot.recent.fruitless) {
            return "copy processes run" + unsure;
        }
        if (snapshot.recent.watched >= 5) {
            return "nothing to copy for the last " +
                   durationText(snapshot.recent.file.value_or(snapshot.recent.watched)) + unsure;
        }
        return unsure.empty() ? "" : unsure.substr(2);
    }

    void addReasons() {
        std::vector<std::string> others;
        for (const Verdict::Reason& reason : judgement.reasons) {
            others.push_back(reason.text);
        }
        if (others.empty()) {
            return;
        }
        others.erase(others.begin());
        if (!others.empty() && !judgement.note.empty()) {
            others.push_back(judgement.note);
        }
        const std::size_t most = view.whole ? others.size() : 3;
        for (std::size_t index = 0; index < others.size() && index < most; ++index) {
            LineBuilder built = line();
            built.add(Style::dim, "  - ");
            if (view.whole) {
                addWrapped(std::move(built), others[index], others[index].size(), rank::reasons,
                           rank::reasons);
                continue;
            }
            built.add(Style::normal, others[index]);
            if (index + 1 == most && others.size() > most) {
                built.add(Style::dim, "; and " + grouped(others.size() - most) + " more");
            }
            add(rank::reasons, {built.take()});
        }
    }

    Line daemonLine() const {
        LineBuilder built = line();
        if (!snapshot.isServed()) {
            built.add(Style::normal, snapshot.daemonState == DaemonState::unknown
                                         ? "Whether a daemon runs can't be seen."
                                         : "No daemon runs. The counts are those of the last one.");
            return built.take();
        }
        built.add(Style::normal, "Daemon " + std::to_string(snapshot.pid));
        if (snapshot.upSince) {
            built.add(Style::normal, " up " + durationText(snapshot.time - *snapshot.upSince) +
                                         " (since " + localTime(*snapshot.upSince) + ")");
        }
        built.add(Style::dim, snapshot.startOptions.empty()
                                  ? std::string(", no start options")
                                  : ", options " + joined(snapshot.startOptions, " "));
        return built.take();
    }

    Line filesLine() const {
        LineBuilder built = line();
        built.add(Style::heading, "Files ").add(Style::normal, grouped(snapshot.files));
        if (snapshot.hasFigures) {
            built.add(Style::normal, ", " + byteText(snapshot.bytes));
        }
        if (snapshot.filesSince && view.width >= 100) {
            built.add(Style::dim, " since " + localTime(*snapshot.filesSince, "%m-%d %H:%M"));
        }
        if (snapshot.rates.lastSeconds) {
            built.add(Style::normal, "  " + rateText(*snapshot.rates.lastSeconds) + "/s");
            if (snapshot.rates.bytes) {
                const double bytes = std::clamp(*snapshot.rates.bytes, 0.0, 1e18);
                built.add(Style::normal, ", " + megabytes(bytes) + " MB/s");
            }
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
        LineBuilder built = line();
        for (const TitledFigure& each : titledFigures(snapshot)) {
            const bool stands = each.number > 0 && each.isBad;
            const std::string text = grouped(each.number) + (stands ? "!" : "");
            const std::string title =
                std::string(built.room() < view.width ? "  " : "") + each.title + " ";
            if (displayWidth(title) + displayWidth(text) <= built.room()) {
                built.add(Style::dim, title).add(stands ? Style::warning : Style::normal, text);
            }
        }
        return built.take();
    }

    bool wide() const { return view.width >= wideTable; }
    bool narrow() const { return view.width < narrowTable; }
    int idColumns() const { return wide() ? 12 : narrow() ? 8 : 10; }

    Line tableHead(int firstShown, int shown) const {
        LineBuilder built = line();
        const auto all = static_cast<int>(snapshot.detectors.size());
        built.cell(Style::heading, "DETECTOR", idColumns());
        built.cell(Style::heading, "STATE", stateColumns);
        if (!narrow()) {
            built.cell(Style::heading, "PROCESSES", barColumns + 4);
        }
        built.cell(Style::heading, "FILES", 11, true);
        built.cell(Style::heading, "BYTES", bytesColumns, true);
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
        if (detector.targetIsSilent) {
            built.add(Style::bad, "the target does not answer!");
            return;
        }
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
        if (detector.freeInodes && detector.totalInodes) {
            const bool few = *detector.freeInodes < *detector.totalInodes / 50;
            if (few || whole) {
                built.add(few ? Style::bad : Style::dim,
                          ", " + countText(*detector.freeInodes) + " inodes" + (few ? "!" : ""));
            }
        }
        if (detector.secondsUntilFull) {
            const double left = *detector.secondsUntilFull;
            built.add(left < 3600 ? Style::warning : Style::dim, ", full in " + durationText(left));
        }
    }

    /// The last file, or why there can't be one.
    void addLast(LineBuilder& built, const DetectorSnapshot& detector) const {
        if (!detector.complaint.empty()) {
            built.addName(Style::bad, detector.complaint, built.room());
        } else if (detector.noAnswer) {
            built.add(Style::bad, "no answer for " + durationText(*detector.noAnswer));
        } else if (detector.figures) {
            built.addName(Style::normal, detector.figures->lastFile, built.room());
        } else {
            built.add(Style::dim, "not known");
        }
    }

    /// How far the cycle is that runs.
    void addCycle(LineBuilder& built, const DetectorSnapshot& detector) const {
        if (!detector.dealt || !detector.cycleSeconds) {
            return;
        }
        built.add(Style::dim,
                  "  cycle: " + (detector.finished ? grouped(*detector.finished) + " of " : "") +
                      grouped(*detector.dealt) + " names, " + durationText(*detector.cycleSeconds));
    }

    std::vector<Line> detectorLines(const DetectorSnapshot& detector) const {
        LineBuilder built = line();
        built.cell(Style::normal, detector.id, idColumns());
        built.cell(styleOf(detector.state), stateText(detector.state), stateColumns);
        if (!narrow()) {
            addProcesses(built, detector);
        }
        const auto& figures = detector.figures;
        built.cell(Style::normal, figures ? grouped(figures->files) : "-", 11, true);
        built.cell(Style::normal, figures ? byteText(figures->bytes) : "-", bytesColumns, true);
        if (narrow()) {
            return {built.take()};
        }
        if (wide()) {
            const int from = built.room();
            addSpace(built, detector, false);
            built.fill(from, spaceColumns + 1);
            addLast(built, detector);
            addCycle(built, detector);
            return {built.take()};
        }
        addLast(built, detector);
        LineBuilder second = line();
        second.add(Style::normal, "  ");
        addSpace(second, detector, true);
        addCycle(second, detector);
        second.add(Style::dim, "  ").addName(Style::dim, detector.target, second.room());
        return {built.take(), second.take()};
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
            if (snapshot.waits.writing.value_or(0) >= 1) {
                built.add(Style::bad, "full!");
                built.add(Style::normal,
                          " nothing read for " + durationText(*snapshot.waits.writing) + ", open");
            } else {
                built.add(Style::good, "read");
            }
            built.add(Style::normal, " by " + joined(snapshot.pipe.readers, ", "));
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
        case LogCoverage::sinceWatch:
            built.add(Style::warning, "counts since this view began: the start is rotated away");
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
        if (!snapshot.hasFigures && !snapshot.lastFile.empty()) {
            LineBuilder built = line();
            built.add(Style::heading, "Last file ")
                .addName(Style::normal, snapshot.lastFile, built.room());
            add(rank::complaint, {built.take()});
        }
        if (snapshot.lastComplaint.empty()) {
            return;
        }
        LineBuilder built = line();
        built.add(Style::heading, "Last complaint ").add(Style::warning, snapshot.lastComplaint);
        add(rank::complaint, {built.take()});
    }

    Line keysLine(const std::string& position) const {
        LineBuilder built = line();
        const std::string clock = localTime(snapshot.time, "%H:%M:%S");
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
        if (view.whole) {
            return std::vector<bool>(blocks.size(), true);
        }
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
        if (view.whole) {
            return layout;
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
    static constexpr int stateColumns = 11;
    static constexpr int bytesColumns = 8;

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

constexpr std::array<Explanation, 26> explanations{{
    {"Keys", ""},
    {"q, Ctrl-C", "quit; the daemon is not touched by anything that is done here"},
    {"h, ?", "these explanations, and back"},
    {"space", "pause: the screen stands still until the next space"},
    {"j k, arrows, PgUp PgDn, Home End", "scroll the detectors, or this text"},
    {"r, Ctrl-L", "draw the screen again"},
    {"First line", "what is now. What is over is in the figures below, and in skarnctl events"},
    {"KEEPING UP", "the daemon runs and nothing is known to hinder it"},
    {"KEEPING UP, BUT", "something just happened, or is going to: look at it by day"},
    {"NOT KEEPING UP", "files stay at their detector, or are announced to nobody"},
    {"CAN'T TELL", "the daemon runs, but what it does can't be seen"},
    {"DOWN", "no daemon runs"},
    {"Figures", "of the copy program since the host's boot; with one that keeps none, of the log"},
    {"Files", "confirmed. The copy program counts each as it is announced, the log when its copy "
              "process has ended"},
    {"/s", "rates begin when this view begins. The row of bars is the last 60 seconds"},
    {"lost and so on", "counted in the log since the daemon's last start, of all detectors"},
    {"lost", "sent but not confirmed. They mostly stay at their detector, and the next cycle "
             "fetches them again: see whether the number grows"},
    {"not announced", "copied, but the consumer was not told: skarnctl unannounced names them"},
    {"complaints", "other lines that copy processes printed, such as errors of rsync"},
    {"Detectors", ""},
    {"unreachable", "the last listing failed; where the last file stands, the reason does"},
    {"hanging", "its listing, or mkdir and chown at its target, get no answer"},
    {"PROCESSES", "copy processes now, of those that one detector may have"},
    {"cycle", "names dealt to copy processes, and how many of them are confirmed"},
    {"FREE AT TARGET", "the bar is what is used. 'full in' goes by the rate of the last minutes, "
                       "and counts what others write there too"},
    {"Pipe", "who has it open for reading, and whether he reads"},
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

std::string watchText(const Snapshot& snapshot, bool unicode) {
    View view;
    view.width = 110;
    view.unicode = unicode;
    view.whole = true;
    std::string text;
    for (const Line& line : layOut(snapshot, view).lines) {
        std::string plain = plainText(line);
        plain.erase(plain.find_last_not_of(' ') + 1);
        text += plain + "\n";
    }
    return text;
}

} // namespace control
