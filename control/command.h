// What every subcommand of skarnctl agrees on: how it is added, its exit statuses, its complaints.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App; // the parser is large: only what defines commands includes it
}

namespace control {

/// Exit statuses that all subcommands share; `status` and `check` have theirs beside them.
enum ExitStatus : int {
    succeeded = 0,
    failed = 1,     // what was asked for could not be done
    badUsage = 2,   // the command line is wrong
    notAllowed = 4, // needs other rights, usually root's
};

/// What stands before a subcommand: options that all of them know.
struct CommonOptions {
    std::string daemonPath; // of the daemon's executable

    /// The words behind `start` or `restart`, which are the daemon's own.
    std::vector<std::string> startOptions;
};

/// Each adds its subcommands. When one is called it does its work and writes its status to
/// `exitStatus`. What is passed must outlive the parsing.
void addServiceCommands(CLI::App& app, const CommonOptions& common, int& exitStatus);
void addCheckCommand(CLI::App& app, int& exitStatus);
void addWatchCommand(CLI::App& app, const CommonOptions& common, int& exitStatus);
void addMetricsCommand(CLI::App& app, const CommonOptions& common, int& exitStatus);
void addEventsCommand(CLI::App& app, int& exitStatus);
void addUnannouncedCommand(CLI::App& app, const CommonOptions& common, int& exitStatus);
void addLogCommand(CLI::App& app, const CommonOptions& common, int& exitStatus);

/// Writes "skarnctl: " and the text, in one line, to standard error. Whatever in it could steer a
/// terminal is shown as \ooo.
void complain(const std::string& text);

/// Writes one line to the standard output at once; what comes next may take its time. Fit for a
/// terminal likewise.
void say(const std::string& text);

/// Writes to the standard output. Nothing if all is written; else the status to end with: success
/// when its reader has seen enough, or a failure that was complained of.
std::optional<int> print(const std::string& text);

/// Takes the user's locale for telling characters, and says whether it is a UTF-8 one.
bool usesUnicode();

/// True unless the user wants no colours (NO_COLOR).
bool wantsColours();

} // namespace control
