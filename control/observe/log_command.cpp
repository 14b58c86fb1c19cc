// skarnctl log: the daemon's log, readable.
#include "control/observe/log_command.h"

#include "control/command.h"
#include "control/configuration.h"
#include "control/display_text.h"
#include "control/observe/explanations.h"
#include "control/service/daemon_processes.h"
#include "utilities/text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>
#include <utility>

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

bool has(const std::string& line, const char* part) {
    return line.find(part) != std::string::npos;
}

/// What the daemon writes between cycles.
bool isMark(const std::string& line) {
    return line.find_first_not_of("+ ") == std::string::npos;
}

const char* colourOf(const std::string& line) {
    if (has(line, "Error: ") || has(line, "rsync: ") || has(line, "rsync error: ") ||
        has(line, "@ERROR")) {
        return red;
    }
    if (has(line, "Warning: ") || has(line, "WARNING: ") || stringBegin(line, "rsync_orbelin: ")) {
        return yellow;
    }
    if (stringBegin(line, "Copied ") || stringBegin(line, "++ skarn ")) {
        return green;
    }
    return has(line, ": rsync call: ") || has(line, ": Removed file ") || has(line, ": Child ")
               ? dim
               : plain;
}

/// The detector that a worker's line begins with; empty if it is no such line.
std::string detectorOf(const std::string& line) {
    const std::size_t blank = line.find(' ');
    if (blank == std::string::npos || blank == 0) {
        return {};
    }
    if (line[blank - 1] == ':' && line.compare(0, blank, "Error:") != 0) {
        return line.substr(0, blank - 1);
    }
    return line.compare(blank, 10, " Starting ") == 0 ? line.substr(0, blank) : std::string();
}

} // namespace

void ReadableLog::takeLines(std::string_view lines) {
    while (!lines.empty()) {
        const std::size_t end = std::min(lines.find('\n'), lines.size());
        takeLine(std::string(lines.substr(0, end)));
        lines.remove_prefix(std::min(end + 1, lines.size()));
    }
}

void ReadableLog::takeGap() {
    endBlock();
    print(yellow, "(lines are missing here)", "");
}

void ReadableLog::takeLine(const std::string& line) {
    if (inBlock) {
        if (has(line, "++ RSYNC OUTPUT END ")) {
            endBlock();
        } else if (block.size() < longestBlock || stringBegin(line, "Copied ")) {
            block.push_back(line);
        } else {
            ++leftOut;
        }
        return;
    }
    if (has(line, "++ RSYNC OUTPUT BEGIN ")) {
        inBlock = true;
        return;
    }
    const std::string detector = detectorOf(line);
    if (!isMark(line) && (view.detector.empty() || detector.empty() || detector == view.detector)) {
        print(colourOf(line), line, "");
    }
}

void ReadableLog::endBlock() {
    if (!inBlock) {
        return;
    }
    inBlock = false;
    const bool hasSummary = !block.empty() && stringBegin(block.back(), "Copied ");
    const std::string first = hasSummary ? block.back() : "A copy process ended, with no file";
    if (hasSummary) {
        block.pop_back();
    }
    print(colourOf(first), first, "");
    for (const std::string& line : block) {
        if (line.find_first_not_of(' ') != std::string::npos) {
            print(colourOf(line), line, "    ");
        }
    }
    if (leftOut > 0) {
        print(dim, "(" + grouped(leftOut) + " more lines)", "    ");
    }
    block.clear();
    leftOut = 0;
}

void ReadableLog::print(const char* colour, const std::string& line, const std::string& indent) {
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

namespace {

struct LogOptions {
    LogView view;
    bool follow = false;
};

int run(const CommonOptions& common, const LogOptions& options) {
    const std::string path = findConfigFile().value_or(configFilePaths().front());
    const LoadedConfiguration loaded =
        loadConfiguration(path, findDaemon(common.daemonPath).startOptions);
    if (!loaded.configuration) {
        complain(loaded.problem);
        return failed;
    }
    const auto log = std::make_shared<ReadableLog>(options.view);
    LogAside reader(loaded.configuration->logFileName, loaded.configuration->logFileMaxNumber, {},
                    log);
    do {
        const bool isRead = reader.poll();
        if (!reader.problem().empty() && !options.follow) {
            complain(reader.problem());
            return failed;
        }
        if (const std::optional<int> end = print(isRead ? log->take() : "")) {
            return *end;
        }
        if (options.follow) {
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
    } while (options.follow);
    return succeeded;
}

} // namespace

void addLogCommand(CLI::App& app, const CommonOptions& common, int& exitStatus) {
    const auto options = std::make_shared<LogOptions>();
    CLI::App* const command =
        app.add_subcommand("log", "Show the log since the daemon's start, readable");
    command->add_option("DETECTOR", options->view.detector, "Only this detector's lines");
    command->add_flag("-f,--follow", options->follow, "Go on with what comes");
    command->add_flag("--explain", options->view.explain, "Cause and cure below each line");
    command->callback([options, &common, &exitStatus] {
        std::signal(SIGPIPE, SIG_IGN);
        options->view.colours = isatty(STDOUT_FILENO) != 0 && wantsColours();
        options->view.unicode = usesUnicode();
        exitStatus = run(common, *options);
    });
}

} // namespace control
