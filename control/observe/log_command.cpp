// skarnctl log: the daemon's log, readable.
#include "control/observe/log_command.h"

#include "control/command.h"
#include "control/configuration.h"
#include "control/display_text.h"
#include "control/observe/log_follower.h"
#include "control/service/daemon_processes.h"
#include "log_tables.h"
#include "utilities/text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <memory>
#include <regex>
#include <sstream>
#include <string_view>
#include <thread>
#include <utility>

#include <fnmatch.h>
#include <unistd.h>

namespace control {

namespace {

using UTILITIES::stringBegin;

/// Lines of one block that are shown.
constexpr std::size_t longestBlock = 20;

constexpr const char* red = "\033[31m";
constexpr const char* green = "\033[32m";
constexpr const char* yellow = "\033[33m";
constexpr const char* dim = "\033[2m";
constexpr const char* plain = "";

/// The first of these that a line has, or begins with, gives its colour.
struct Style {
    std::string_view part;
    const char* colour;
    bool isBeginning = false;
};

constexpr std::array<Style, 12> styles{{{"Error: ", red},
                                        {"rsync: ", red},
                                        {"rsync error: ", red},
                                        {"@ERROR", red},
                                        {"Warning: ", yellow},
                                        {"WARNING: ", yellow},
                                        {"rsync_orbelin: ", yellow, true},
                                        {"Copied ", green, true},
                                        {"++ skarn ", green, true},
                                        {": rsync call: ", dim},
                                        {": Removed file ", dim},
                                        {": Child ", dim}}};

const char* colourOf(std::string_view line) {
    for (const Style& style : styles) {
        const std::size_t found = line.find(style.part);
        if (found == 0 || (found != std::string_view::npos && !style.isBeginning)) {
            return style.colour;
        }
    }
    return plain;
}

/// The detector that a worker's line begins with; empty if it is no such line.
std::string_view detectorOf(std::string_view line) {
    const std::size_t blank = line.find(' ');
    if (blank == std::string_view::npos || blank == 0) {
        return {};
    }
    if (line[blank - 1] == ':' && !stringBegin(line, "Error:")) {
        return line.substr(0, blank - 1);
    }
    return stringBegin(line.substr(blank), " Starting ") ? line.substr(0, blank)
                                                         : std::string_view();
}

/// How the log is to be shown.
struct LogView : LogOptions {
    bool colours = false;
    bool unicode = false;
};

/// Makes the log readable: the marks between cycles are left out, and the block of a copy process
/// becomes one line with its complaints below it.
class ReadableLog : public LogSink {
public:
    explicit ReadableLog(LogView how) : view(std::move(how)) {}

    void takeLine(std::string_view line) override {
        if (inBlock) {
            if (line.find("++ RSYNC OUTPUT END ") != std::string_view::npos) {
                endBlock();
            } else if (block.size() < longestBlock || stringBegin(line, "Copied ")) {
                block.emplace_back(line);
            } else {
                ++leftOut;
            }
            return;
        }
        inBlock = line.find("++ RSYNC OUTPUT BEGIN ") != std::string_view::npos;
        const std::string_view detector = detectorOf(line);
        const bool isMark = line.find_first_not_of("+ ") == std::string_view::npos;
        if (!inBlock && !isMark &&
            (view.detector.empty() || detector.empty() || detector == view.detector)) {
            show(colourOf(line), std::string(line), "");
        }
    }

    void takeGap() override {
        endBlock();
        show(yellow, "(lines are missing here)", "");
    }

    /// What is to be printed by now.
    std::string take() { return std::exchange(text, {}); }

private:
    void endBlock() {
        if (!std::exchange(inBlock, false)) {
            return;
        }
        std::string first = "A copy process ended, with no file";
        if (!block.empty() && stringBegin(block.back(), "Copied ")) {
            first = block.back();
            block.pop_back();
        }
        show(colourOf(first), first, "");
        for (const std::string& line : std::exchange(block, {})) {
            if (line.find_first_not_of(' ') != std::string::npos) {
                show(colourOf(line), line, "    ");
            }
        }
        if (leftOut > 0) {
            show(dim, "(" + grouped(std::exchange(leftOut, 0)) + " more lines)", "    ");
        }
    }

    void show(const char* colour, const std::string& line, const std::string& indent) {
        const auto add = [this](const char* style, const std::string& shown) {
            const bool isStyled = view.colours && *style != '\0';
            text += (isStyled ? style : "") + displayable(shown, view.unicode) +
                    (isStyled ? "\033[0m" : "") + "\n";
        };
        add(colour, indent + line);
        const Explanation* const found = view.explain ? explanationOf(line) : nullptr;
        if (found != nullptr) {
            add(dim, indent + "    " + found->cause);
            if (!found->cure.empty()) {
                add(dim, indent + "    Cure: " + found->cure);
            }
        }
    }

    LogView view;
    std::string text;
    bool inBlock = false;
    std::vector<std::string> block;
    std::size_t leftOut = 0;
};

int run(const CommonOptions& common, const LogView& view) {
    const LoadedConfiguration loaded = loadDaemonsConfiguration(common.daemonPath);
    if (!loaded.configuration) {
        complain(loaded.problem);
        return failed;
    }
    const auto log = std::make_shared<ReadableLog>(view);
    LogAside reader(loaded.configuration->logFileName, loaded.configuration->logFileMaxNumber, {},
                    log);
    for (;;) {
        const bool isRead = reader.poll();
        if (!reader.problem().empty() && !view.follow) {
            complain(reader.problem());
            return failed;
        }
        const std::optional<int> end = print(isRead ? log->take() : "");
        if (end || !view.follow) {
            return end.value_or(succeeded);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
}

} // namespace

std::vector<Explanation> parseExplanations(const std::string& tables) {
    static const std::regex threeCells(R"([^|]*\| *([^|]*?) *\| *([^|]*?) *\| *([^|]*?) *\|[^|]*)");
    static const std::regex quoted("`([^`]*)`");
    static const std::regex special(R"([*?\[\\])");
    static const std::regex placeholder(
        R"(\b(ID|N|NAME|PID|COMMAND|FIRST|LAST|DATE|FOLDER|TARGET|URL|LOG|reason)\b|\.\.\.)");
    std::vector<Explanation> rows;
    std::istringstream lines(tables);
    std::smatch cells;
    for (std::string line; std::getline(lines, line);) {
        if (!std::regex_match(line, cells, threeCells)) {
            continue;
        }
        Explanation row{{}, cells[2], cells[3]};
        const std::string known = cells[1];
        for (std::sregex_iterator each(known.begin(), known.end(), quoted), end; each != end;
             ++each) {
            const std::string literal = std::regex_replace((*each)[1].str(), special, R"(\$&)");
            row.patterns.push_back(std::regex_replace(literal, placeholder, "*") + "*");
        }
        if (!row.patterns.empty()) {
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

const Explanation* explanationOf(const std::string& line) {
    static const std::vector<Explanation> rows = parseExplanations(logTables);
    for (const Explanation& row : rows) {
        for (const std::string& pattern : row.patterns) {
            if (fnmatch(pattern.c_str(), line.c_str(), 0) == 0) {
                return &row;
            }
        }
    }
    return nullptr;
}

int runLog(const CommonOptions& common, const LogOptions& options) {
    std::signal(SIGPIPE, SIG_IGN);
    return run(common, {options, isatty(STDOUT_FILENO) != 0 && wantsColours(), usesUnicode()});
}

} // namespace control
