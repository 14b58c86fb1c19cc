// What the full-screen view shows, as lines of styled text: everything of it but the terminal.
#include "control/observe/watch_layout.h"

#include "control/display_text.h"
#include "control/observe/figures.h"
#include "control/observe/verdict.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <sstream>
#include <utility>

namespace control {

namespace {

constexpr Style normal = Style::normal;
constexpr Style dim = Style::dim;
constexpr Style good = Style::good;
constexpr Style warning = Style::warning;
constexpr Style bad = Style::bad;
constexpr Style heading = Style::heading;
constexpr Style graph = Style::graph;

constexpr int barColumns = 8;
constexpr int noLimit = 1 << 20;
constexpr double fresh = 300; // seconds

/// The tables that screens of different widths have room for.
enum Table : std::size_t { narrow, middle, wide };

/// A column of the table of detectors.
struct Column {
    const char* title;
    std::array<int, 3> columns; // in each of these; 0: not there, noLimit: the rest of the line
    bool isToTheRight = false;
};
constexpr std::array<Column, 7> table{{
    {"DETECTOR", {8, 10, 12}},
    {"STATE", {11, 11, 11}},
    {"PROCESSES", {0, barColumns + 4, barColumns + 4}},
    {"FILES", {11, 11, 11}, true},
    {"BYTES", {8, 8, 8}, true},
    {"FREE AT TARGET", {0, 0, 43}},
    {"LAST FILE", {0, noLimit, noLimit}},
}};

/// What the log counts: its title, and whether any but 0 is a fault. The gravest first.
struct CountTitle {
    const char* title;
    std::uint64_t Counts::*count;
    bool isBad = true;
};
constexpr std::array<CountTitle, 10> countTitles{{
    {"lost", &Counts::lost},
    {"not announced", &Counts::failedHandoffs},
    {"no pipe", &Counts::withoutPipe},
    {"failed starts", &Counts::failedStarts},
    {"failed listings", &Counts::failedListings},
    {"complaints", &Counts::complaints},
    {"long records", &Counts::longRecords},
    {"lists left", &Counts::failedRemovals},
    {"cycles", &Counts::cycles, false},
    {"processes", &Counts::processes, false},
}};

/// The help: terms and what is to be known of them; headings.
constexpr std::array<std::pair<const char*, const char*>, 26> explanations{{
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

/// Lines that are shown together or not at all.
struct Block {
    int rank = 0; // those of a lower one are found room for first
    std::vector<Line> lines;
    bool isScrolled = false; // one of a list, all of which have as many lines
    bool isShown = true;
};

/// "3 archives"
std::string several(std::uint64_t number, const std::string& one) {
    return grouped(number) + " " + one + (number == 1 ? "" : "s");
}

/// "17", "34 k", "2 M": so many that the rest does not matter.
std::string countText(std::uint64_t number) {
    return number < 10000     ? grouped(number)
           : number < 9500000 ? grouped(number / 1000) + " k"
                              : grouped(number / 1000000) + " M";
}

double partOf(std::uint64_t part, std::uint64_t whole) {
    return whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole);
}

int widthOf(const Line& line) {
    return displayWidth(plainText(line));
}

Segment blanks(int number) {
    return {normal, std::string(static_cast<std::size_t>(std::max(0, number)), ' ')};
}

Line operator+(Line line, const Line& more) {
    line.insert(line.end(), more.begin(), more.end());
    return line;
}

/// The line as it can be shown in so many columns.
Line fitted(const Line& line, int columns, bool unicode, int nameColumns = noLimit) {
    Line shown;
    for (const Segment& each : line) {
        std::string text = displayable(each.text, unicode);
        text =
            cut(text, each.isName ? std::min(columns, nameColumns) : columns, unicode, each.isName);
        if (!text.empty()) {
            columns -= displayWidth(text);
            shown.push_back({each.style, text});
        }
    }
    return shown;
}

/// Adds words to a line that was begun, and indented lines below it for those that there is no room
/// for; the last one of `most` lines has all the rest.
std::vector<Line> wrapped(Line begun, const Segment& text, int indent, const View& view,
                          std::size_t most = noLimit) {
    std::istringstream words(displayable(text.text, view.unicode));
    int room = view.width - widthOf(begun);
    std::vector<Line> lines{std::move(begun)};
    std::string part;
    for (std::string word; std::getline(words, word, ' ');) {
        if (!part.empty() && lines.size() < most &&
            displayWidth(part) + 1 + displayWidth(word) > room) {
            lines.back().push_back({text.style, std::exchange(part, {})});
            lines.push_back({blanks(indent)});
            room = view.width - indent;
        }
        part += (part.empty() ? "" : " ") + word;
    }
    lines.back().push_back({text.style, part});
    return lines;
}

// Of a detector.

Line state(const DetectorSnapshot& detector) {
    static constexpr std::array styles{bad, dim, good, dim, bad, bad};
    std::string text = nameOf(detector.state);
    std::replace(text.begin(), text.end(), '_', ' ');
    return {{styles.at(static_cast<std::size_t>(detector.state)), text}};
}

/// Room at the target; `whole`: all that is known of it.
Line space(const DetectorSnapshot& detector, bool unicode, bool whole) {
    if (detector.targetIsSilent) {
        return {{bad, "the target does not answer!"}};
    }
    if (!detector.freeBytes || detector.totalBytes.value_or(0) == 0) {
        return {{dim, "free space can't be seen"}};
    }
    const double free = partOf(*detector.freeBytes, *detector.totalBytes);
    const bool tight = free < 0.02;
    const std::optional<std::uint64_t>& inodes = detector.freeInodes;
    const bool few = inodes && *inodes < detector.totalInodes.value_or(0) / 50;
    const std::optional<double>& left = detector.secondsUntilFull;
    return {
        {graph, bar(1 - free, barColumns, unicode)},
        {tight ? bad : normal, " " + byteText(*detector.freeBytes)},
        {normal, (whole ? " of " + byteText(*detector.totalBytes) : "") + " free"},
        {bad, tight ? "!" : ""},
        {few ? bad : dim, inodes && (few || whole) ? ", " + countText(*inodes) + " inodes" : ""},
        {bad, few ? "!" : ""},
        {left.value_or(0) < 3600 ? warning : dim, left ? ", full in " + durationText(*left) : ""}};
}

/// How far the cycle is that runs.
Line cycle(const DetectorSnapshot& detector) {
    if (!detector.dealt || !detector.cycleSeconds) {
        return {};
    }
    return {{dim, "  cycle: " + (detector.finished ? grouped(*detector.finished) + " of " : "") +
                      grouped(*detector.dealt) + " names, " +
                      durationText(*detector.cycleSeconds)}};
}

/// The last file, or why there can't be one.
Line lastFile(const DetectorSnapshot& detector) {
    const std::optional<double>& wait = detector.noAnswer;
    return !detector.complaint.empty() ? Line{{bad, detector.complaint, true}}
           : wait                      ? Line{{bad, "no answer for " + durationText(*wait)}}
           : detector.figures          ? Line{{normal, detector.figures->lastFile, true}}
                                       : Line{{dim, "not known"}};
}

/// Lays out what is to be shown.
class Page {
public:
    Page(const Snapshot& aSnapshot, const View& aView)
        : snapshot(aSnapshot), view(aView), judgement(verdict(aSnapshot)) {}

    /// Ranks are from what matters most to what matters least.
    Layout layOut() {
        if (view.help) {
            addHelp();
            return arranged();
        }
        addVerdict(); // 0, what more it has 1, further reasons 11
        add(4, daemonLine());
        add(14, {});
        add(5, filesLine());
        add(7, countsLine());
        add(14, {});
        add(headRank, {}); // made when it is known which detectors are shown
        static constexpr std::array ranks{3, 6, 10, 10, 13};
        for (std::size_t index = 0; index < snapshot.detectors.size(); ++index) {
            addDetector(ranks.at(std::min(index, ranks.size() - 1)), snapshot.detectors[index]);
        }
        add(14, {});
        add(8, pipeLine());
        if (snapshot.relay) {
            add(8, relayLine(*snapshot.relay));
        }
        add(9, logLine());
        if (!snapshot.hasFigures && !snapshot.lastFile.empty()) {
            add(12, {{heading, "Last file "}, {normal, snapshot.lastFile, true}});
        }
        if (!snapshot.lastComplaint.empty()) {
            add(12, {{heading, "Last complaint "}, {warning, snapshot.lastComplaint}});
        }
        return arranged();
    }

private:
    static constexpr int headRank = 2;

    Table kind() const { return view.width < 60 ? narrow : view.width < 130 ? middle : wide; }
    void add(int rank, const Line& line) { blocks.push_back({rank, {line}}); }

    /// The verdict with its gravest reason, which may take a line or two more; then the others.
    void addVerdict() {
        std::vector<std::string> texts;
        for (const Verdict::Reason& reason : judgement.reasons) {
            texts.push_back(reason.text);
        }
        if (texts.empty()) {
            texts.push_back(progressText());
        }
        if (texts.size() > 1 && !judgement.note.empty()) {
            texts.push_back(judgement.note);
        } else if (!judgement.note.empty()) {
            texts[0] += (texts[0].empty() ? "" : "; ") + judgement.note;
        }
        const std::size_t most = view.whole ? texts.size() : 4;
        if (texts.size() > most) {
            texts[most - 1] += "; and " + grouped(texts.size() - most) + " more";
            texts.resize(most);
        }
        static constexpr std::array styles{good, warning, warning, bad, bad};
        const Line first{
            {styles.at(static_cast<std::size_t>(judgement.level)), headline(judgement.level)},
            {normal, texts[0].empty() ? "" : ": "}};
        for (const std::string& text : texts) {
            const bool isFirst = &text == &texts[0];
            const std::size_t lines = view.whole ? noLimit : isFirst ? 3 : 1;
            for (const Line& line :
                 wrapped(isFirst ? first : Line{{dim, "  - "}}, {normal, text}, 4, view, lines)) {
                add(!isFirst ? 11 : blocks.empty() ? 0 : 1, line);
            }
        }
    }

    std::string progressText() const {
        const Recent& recent = snapshot.recent;
        std::string text = recent.file.value_or(fresh) < fresh ? "files are coming in"
                           : recent.fruitless                  ? "copy processes run"
                           : recent.watched >= 5
                               ? "nothing to copy for the last " +
                                     durationText(recent.file.value_or(recent.watched))
                               : "";
        if (snapshot.isServed() && !snapshot.hasFigures) {
            text += (text.empty() ? "" : ", ") + std::string("as far as can be seen: the copy ") +
                    "program does not say how its listings go";
        }
        return text;
    }

    Line daemonLine() const {
        if (!snapshot.isServed()) {
            return {{normal, snapshot.daemonState == DaemonState::unknown
                                 ? "Whether a daemon runs can't be seen."
                                 : "No daemon runs. The counts are those of the last one."}};
        }
        const std::optional<double>& since = snapshot.upSince;
        const std::string options = joined(snapshot.startOptions, " ");
        return {{normal, "Daemon " + std::to_string(snapshot.pid)},
                {normal, since ? " up " + durationText(snapshot.time - *since) + " (since " +
                                     localTime(*since) + ")"
                               : ""},
                {dim, options.empty() ? ", no start options" : ", options " + options}};
    }

    Line filesLine() const {
        const Rates& rates = snapshot.rates;
        const std::optional<double>& since = snapshot.filesSince;
        Line line{
            {heading, "Files "},
            {normal, grouped(snapshot.files)},
            {normal, snapshot.hasFigures ? ", " + byteText(snapshot.bytes) : ""},
            {dim, since && view.width >= 100 ? " since " + localTime(*since, "%m-%d %H:%M") : ""}};
        if (rates.lastSeconds) {
            line = line +
                   Line{{normal, "  " + rateText(*rates.lastSeconds) + "/s"},
                        {normal, rates.bytes ? ", " + rateText(*rates.bytes / 1e6) + " MB/s" : ""},
                        {dim, " now"}};
        }
        if (rates.lastMinutes) {
            line = line +
                   Line{{normal, "  " + rateText(*rates.lastMinutes) + "/s"}, {dim, " over 5 min"}};
        }
        const std::vector<double>& history = rates.history;
        const auto highest = std::max_element(history.begin(), history.end());
        const std::string peak = history.empty() ? "" : "  peak " + rateText(*highest) + "/s";
        const int room = view.width - widthOf(line) - 2 - displayWidth(peak);
        if (history.empty() || room < 8) {
            return line;
        }
        return line + Line{blanks(2),
                           {graph, sparkline(history, std::min(60, room), view.unicode)},
                           {dim, peak}};
    }

    /// As many counts as there is room for.
    Line countsLine() const {
        Line line;
        for (const CountTitle& each : countTitles) {
            const std::uint64_t number = snapshot.counts.*each.count;
            const bool stands = each.isBad && number > 0;
            const Line item{{dim, std::string(line.empty() ? "" : "  ") + each.title + " "},
                            {stands ? warning : normal, grouped(number) + (stands ? "!" : "")}};
            if (widthOf(line) + widthOf(item) <= view.width) {
                line = line + item;
            }
        }
        return line;
    }

    /// One line of the table. What is too long for its column takes room from those behind it, but
    /// names are cut.
    Line tableLine(const std::array<Line, table.size()>& cells) const {
        Line line;
        for (std::size_t index = 0; index < table.size(); ++index) {
            const int columns = table.at(index).columns.at(kind());
            if (columns == 0) {
                continue;
            }
            const int left = std::max(0, view.width - widthOf(line));
            const Line cell = fitted(cells.at(index), left, view.unicode, columns);
            const int missing = columns == noLimit ? 0 : std::min(columns, left) - widthOf(cell);
            const Line fill{blanks(missing)};
            line = line + (table.at(index).isToTheRight ? fill + cell : cell + fill);
            line.push_back(blanks(columns == noLimit ? 0 : 1));
        }
        return line;
    }

    Line tableHead(int first, int shown) const {
        std::array<Line, table.size()> titles;
        for (std::size_t index = 0; index < table.size(); ++index) {
            titles.at(index) = {{heading, table.at(index).title}};
        }
        const auto all = static_cast<int>(snapshot.detectors.size());
        if (shown < all) {
            titles.back() = {{warning, std::to_string(first + 1) + "-" +
                                           std::to_string(first + shown) + " of " +
                                           std::to_string(all) + " (j/k)"}};
        }
        return tableLine(titles);
    }

    void addDetector(int rank, const DetectorSnapshot& detector) {
        const auto& figures = detector.figures;
        const int limit = snapshot.processLimit.value_or(0);
        const double busy = limit > 0 ? static_cast<double>(detector.copyProcesses) / limit : 0;
        const Line processes{{graph, bar(busy, barColumns, view.unicode)},
                             {normal, " " + std::to_string(detector.copyProcesses) + "/" +
                                          (limit > 0 ? std::to_string(limit) : "?")}};
        const Line progress = cycle(detector);
        std::vector<Line> lines{
            tableLine({Line{{normal, detector.id, true}}, state(detector), processes,
                       Line{{normal, figures ? grouped(figures->files) : "-"}},
                       Line{{normal, figures ? byteText(figures->bytes) : "-"}},
                       space(detector, view.unicode, false),
                       lastFile(detector) + (kind() == wide ? progress : Line())})};
        if (kind() == middle) {
            lines.push_back(Line{blanks(2)} + space(detector, view.unicode, true) + progress +
                            Line{blanks(2), {dim, detector.target, true}});
        }
        blocks.push_back({rank, std::move(lines), true});
    }

    Line pipeLine() const {
        const double blocked = snapshot.waits.writing.value_or(0);
        const std::array<Segment, 6> states{
            {{bad, "absent!"},
             {bad, "not a pipe!"},
             {bad, "no reader!"},
             {blocked < 1 ? good : bad, blocked < 1 ? "read" : "full!"},
             {good, "held by systemd, which starts its reader"},
             {warning, "reader unknown: only root can see it"}}};
        const bool isRead = snapshot.pipe.state == PipeSnapshot::State::read;
        const std::string wait = " nothing read for " + durationText(blocked) + ", open";
        return {{heading, "Pipe "},
                states.at(static_cast<std::size_t>(snapshot.pipe.state)),
                {normal, isRead && blocked >= 1 ? wait : ""},
                {normal, isRead ? " by " + joined(snapshot.pipe.readers, ", ") : ""},
                blanks(2),
                {dim, snapshot.pipe.path, true}};
    }

    static Line relayLine(const RelaySnapshot& relay) {
        Line line{{heading, "Relay "}, {normal, grouped(relay.records) + " records"}};
        for (const RelaySubscriber& each : relay.subscribers) {
            const bool hasAll = each.lag == 0 && each.problem.empty();
            const std::string behind = each.lag == 0 ? " has all"
                                                     : " " + grouped(each.lag) + " behind for " +
                                                           durationText(each.lagSeconds);
            line.insert(line.end(),
                        {{dim, ", "}, {normal, each.name}, {hasAll ? good : warning, behind}});
        }
        return line;
    }

    Line logLine() const {
        const LogSnapshot& log = snapshot.log;
        if (log.coverage == LogCoverage::none) {
            return {{heading, "Log  "},
                    {bad, "not read!"},
                    {normal, (log.problem.empty() ? "" : " ") + log.problem}};
        }
        const auto limit = static_cast<std::uint64_t>(std::max<std::int64_t>(0, log.limit));
        const std::string ofLimit = limit > 0 ? " of " + byteText(limit) : "";
        static const std::array<Segment, 4> coverages{
            {{},
             {good, "counts since the start"},
             {warning, "counts since this view began: the start is rotated away"},
             {warning, "counts too low: lines were missed"}}};
        return {
            {heading, "Log  "},
            {graph, limit > 0 ? bar(partOf(log.bytes, limit), barColumns, view.unicode) + " " : ""},
            {normal, byteText(log.bytes) + (log.limit < 0 ? ", never rotated" : ofLimit)},
            blanks(2),
            coverages.at(static_cast<std::size_t>(log.coverage)),
            {dim, "  " + several(static_cast<std::uint64_t>(log.archives), "archive") + ", " +
                      several(log.rotations, "rotation") + " seen"},
            blanks(2),
            {dim, log.path, true}};
    }

    void addHelp() {
        const int indent = kind() == narrow ? 2 : 20;
        const auto addLine = [this](const Line& line) { blocks.push_back({0, {line}, true}); };
        for (const auto& [term, text] : explanations) {
            const bool isHeading = *text == '\0';
            if (isHeading && !blocks.empty()) {
                addLine({});
            }
            Line first{{isHeading ? heading : normal, term}};
            if (isHeading || kind() == narrow || widthOf(first) >= indent) {
                addLine(std::exchange(first, {}));
            }
            if (!isHeading) {
                first.push_back(blanks(indent - widthOf(first)));
                for (const Line& line : wrapped(first, {dim, text}, indent, view)) {
                    addLine(line);
                }
            }
        }
    }

    Line keysLine(int first, int shown, int all) const {
        if (view.help) {
            return {{dim, "h back  q quit"},
                    {warning, shown == all          ? ""
                              : first + shown < all ? "  j more"
                                                    : "  k back up"}};
        }
        const bool isUnseen = kind() == narrow && shown < all;
        const std::string clock = localTime(snapshot.time, "%H:%M:%S");
        Line line{{warning, isUnseen
                                ? std::to_string(shown) + " of " + std::to_string(all) + " (j/k)  "
                                : ""},
                  {warning, view.paused ? "PAUSED at " + clock + "  " : ""},
                  {dim, std::string("q quit  h help  space ") + (view.paused ? "go on" : "pause") +
                            "  r redraw"}};
        const int room = view.width - widthOf(line) - 1 - displayWidth(clock);
        if (!view.paused && room >= 2) {
            return line + Line{blanks(room), {dim, clock}};
        }
        return line;
    }

    /// Finds room for what matters most, and lays it out in its order.
    Layout arranged() {
        std::vector<Block*> order;
        for (Block& block : blocks) {
            order.push_back(&block);
        }
        std::stable_sort(order.begin(), order.end(), [](const Block* one, const Block* other) {
            return one->rank < other->rank;
        });
        int room = view.whole ? noLimit : view.height - 1; // the line of keys
        int all = 0;
        int shown = 0;
        for (Block* const block : order) {
            const auto lines = static_cast<int>(block->lines.size());
            block->isShown = lines <= room;
            room -= block->isShown ? lines : 0;
            all += block->isScrolled ? 1 : 0;
            shown += block->isScrolled && block->isShown ? 1 : 0;
        }
        Layout layout;
        layout.maxScroll = shown > 0 ? all - shown : 0;
        const int first = std::clamp(view.scroll, 0, layout.maxScroll);
        int index = 0;
        for (Block& block : blocks) {
            if (block.isScrolled) {
                block.isShown = index >= first && index < first + shown;
                ++index;
            } else if (block.rank == headRank) {
                block.lines = {tableHead(first, shown)};
            }
            for (std::size_t line = 0; block.isShown && line < block.lines.size(); ++line) {
                layout.lines.push_back(fitted(block.lines[line], view.width, view.unicode));
            }
        }
        if (!view.whole && view.height > 0) {
            layout.lines.resize(static_cast<std::size_t>(view.height - 1));
            // Its last column stays free: some terminals scroll when it is written.
            layout.lines.push_back(
                fitted(keysLine(first, shown, all), view.width - 1, view.unicode));
        }
        return layout;
    }

    const Snapshot& snapshot;
    const View& view;
    const Verdict judgement;
    std::vector<Block> blocks;
};

} // namespace

std::string sparkline(const std::vector<double>& values, int columns, bool unicode) {
    static constexpr std::array blocks{" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static constexpr std::array letters{" ", "_", ".", ":", "-", "=", "+", "*", "#"};
    const auto room = static_cast<std::size_t>(std::max(0, columns));
    const std::size_t shown = std::min(values.size(), room);
    const auto begin = values.end() - static_cast<std::ptrdiff_t>(shown);
    const double highest = shown == 0 ? 0 : *std::max_element(begin, values.end());
    std::string row(room - shown, ' ');
    for (auto value = begin; value != values.end(); ++value) {
        // A little is not nothing.
        const double height = highest > 0 ? std::ceil(std::max(0.0, *value) / highest * 8) : 0;
        row += (unicode ? blocks : letters).at(static_cast<std::size_t>(height));
    }
    return row;
}

std::string bar(double part, int columns, bool unicode) {
    // Not filled by a little less than all, nor empty with a little.
    const int full = part >= 1  ? columns
                     : part > 0 ? std::clamp(static_cast<int>(std::lround(part * columns)), 1,
                                             std::max(1, columns - 1))
                                : 0;
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
    return Page(snapshot, view).layOut();
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
