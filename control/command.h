// What every subcommand of skarnctl agrees on: how it is added, its exit statuses, its complaints.
#pragma once

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

/// Writes "skarnctl: " and the text, in one line, to standard error. Whatever in it could steer a
/// terminal is shown as \ooo.
void complain(const std::string& text);

} // namespace control
