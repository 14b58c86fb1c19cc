// What is known of the daemon at one moment: the one source of `watch`, `watch --json` and
// `metrics`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace control {

/// Counted in the log since the daemon's last start (see LogCoverage).
struct Counts {
    std::uint64_t cycles = 0;         // of a detector that had something to copy
    std::uint64_t processes = 0;      // copy processes started
    std::uint64_t failedStarts = 0;   // copy processes that could not be started
    std::uint64_t reports = 0;        // blocks that a copy process left in the log
    std::uint64_t files = 0;          // copied and confirmed
    std::uint64_t lost = 0;           // "Error: Lost": sent, never confirmed
    std::uint64_t complaints = 0;     // other lines that copy processes printed
    std::uint64_t failedHandoffs = 0; // files that the consumer was not told of: a write failed
    std::uint64_t withoutPipe = 0;    // copy processes that found no pipe
    std::uint64_t longRecords = 0;    // records above 4,096 bytes
    std::uint64_t failedListings = 0; // listings that could not be started
    std::uint64_t failedRemovals = 0; // file lists that could not be removed
};

/// One detector's part.
struct DetectorSnapshot {
    std::string id;
    std::string shareUrl;
    std::string target; // after all rules

    enum class State {
        notServed, // no daemon runs
        listing,   // a listing runs now
        copying,   // copy processes run, or are about to, or their reports are being read
        idle,      // neither: it waits for its minimum pause, or prepares its target
    };
    State state = State::notServed;
    int copyProcesses = 0; // running now

    /// What is certainly this detector's. Blocks of copied files bear no detector's name; those
    /// that two detectors may have left are in Snapshot::unattributed instead.
    Counts counts;
    std::string lastFile; // empty until one is certain

    std::optional<std::uint64_t>
        freeBytes; // of the target's file system; nothing if it can't be asked
    std::optional<std::uint64_t> totalBytes;
    std::optional<double> secondsUntilFull; // at the present rate; nothing if it is not filling
};

/// The hand-off pipe and who reads it.
struct PipeSnapshot {
    enum class State {
        absent,
        notAPipe,
        noReader,
        read,    // at least one process holds it open for reading
        unknown, // not allowed to look
    };
    State state = State::unknown;
    std::string path;
    std::vector<std::string> readers; // "name (pid)"
};

/// How much of the daemon's life the counts cover.
enum class LogCoverage {
    none,        // no log (the default /dev/null), or it can't be read
    sinceStart,  // all lines since the daemon's banner
    sinceOldest, // the banner was rotated away: the counts are too low
    withGap,     // so many rotations at once that lines were missed: the counts are too low
};

struct LogSnapshot {
    std::string path;
    LogCoverage coverage = LogCoverage::none;
    std::string problem;         // one sentence when it can't be read
    std::uint64_t bytes = 0;     // of the current file
    std::int64_t limit = 0;      // bytes above which the daemon rotates it; negative: never
    int archives = 0;            // rotated files that are there
    std::uint64_t rotations = 0; // seen since this program watches
    std::string started;         // the date that the last banner names
};

/// Files a second, over the last while. The log bears no time, so the rates begin when this program
/// begins to watch, and files count when their copy process has ended.
struct Rates {
    std::optional<double> lastSeconds; // over the last 10 s
    std::optional<double> lastMinutes; // over the last 5 minutes, or since watching began
    std::vector<double> history; // one value for each of the last 60 seconds at most, oldest first
};

/// How the totals moved while this program watched (see RecentChanges). Seconds since something was
/// last counted; nothing if it was not since watching began.
struct Recent {
    double watched = 0; // seconds since watching began; 0 in a single look
    std::optional<double> file;
    std::optional<double> lost;
    std::optional<double> failedHandoff;
    std::optional<double> complaint;

    /// For how long copy processes have been started or running without a file being counted;
    /// nothing when there are none, or files come.
    std::optional<double> fruitless;
    std::uint64_t fruitlessReports = 0; // copy processes that ended in that time
};

struct Snapshot {
    double time = 0; // seconds since 1970

    enum class DaemonState { running, dead, notRunning, unknown };
    DaemonState daemonState = DaemonState::unknown;
    std::string daemonText;                // one sentence as `skarnctl status` says it
    pid_t pid = 0;                         // when running
    std::optional<double> upSince;         // seconds since 1970
    std::vector<std::string> startOptions; // of the running daemon
    std::optional<int> processLimit;       // copy processes one detector may have (status file)
    std::string configFile;
    std::string configProblem;  // one sentence when it can't be read
    bool configChanged = false; // changed after the daemon read it: what is shown may differ

    std::vector<DetectorSnapshot> detectors; // ascending by ID
    Counts total;                            // all detectors and `unattributed`
    Counts unattributed;                     // blocks that several detectors may have left
    Counts undecided;     // of `unattributed`: what may still turn out to be a certain detector's
    std::string lastFile; // of the newest block that copied something
    std::string lastComplaint; // newest line that a copy process printed beside its files
    Rates rates;
    Recent recent;
    PipeSnapshot pipe;
    LogSnapshot log;
};

} // namespace control
