// The subcommands of skarnctl, and what all of them agree on: exit statuses and complaints.
#pragma once

#include <optional>
#include <string>
#include <vector>

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

// Each subcommand does its work and returns its exit status; main.cpp has the words for its
// options.

struct CheckOptions {
    std::optional<std::string> file;       // nothing: the one that the daemon reads
    std::vector<std::string> startOptions; // as the daemon would be given them
    bool asJson = false;
    bool noNetwork = false; // the detectors' shares are not listed
};
int runCheck(const CheckOptions& options);

struct WatchOptions {
    bool once = false;
    bool json = false;
    bool inLines = false; // as JSON: one look after the other, each in a line
    double interval = 1;  // seconds
    std::string configFile;
};
int runWatch(const CommonOptions& common, const WatchOptions& options);

/// Exactly one of `listen`, `write` and `once` is given.
struct MetricsOptions {
    std::string listen; // ADDRESS:PORT
    std::string write;  // a file
    bool once = false;
    std::string from; // with `listen`: the file that another one writes
    std::string configFile;
};
int runMetrics(const CommonOptions& common, const MetricsOptions& options);

struct EventsOptions {
    std::string since;
    bool ended = false; // note the daemon's end, by what systemd says
};
int runEvents(const EventsOptions& options);

int runUnannounced(const CommonOptions& common, bool isToAnnounce);

struct LogOptions {
    std::string detector; // only this one's lines, and those that bear no detector's name
    bool explain = false; // cause and cure below each line that has one
    bool follow = false;
};
int runLog(const CommonOptions& common, const LogOptions& options);

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
