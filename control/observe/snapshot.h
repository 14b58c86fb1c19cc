// What is known of the daemon at one moment: the one source of all that is shown, served or noted.
#pragma once

#include "control/consumer_pipe.h"
#include "control/event_journal.h"
#include "control/observe/relay_look.h"
#include "control/service/daemon_processes.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace control {

/// Counted in the daemon's log, of all detectors (see LogCoverage).
struct Counts {
    std::uint64_t cycles = 0;         // of a detector that had something to copy
    std::uint64_t processes = 0;      // copy processes started
    std::uint64_t failedStarts = 0;   // copy processes that could not be started
    std::uint64_t reports = 0;        // blocks that a copy process left in the log
    std::uint64_t files = 0;          // copied and confirmed
    std::uint64_t lost = 0;           // "Error: Lost": sent, not confirmed by that process
    std::uint64_t complaints = 0;     // other lines that copy processes printed
    std::uint64_t failedHandoffs = 0; // files that the consumer was not told of: a write failed
    std::uint64_t withoutPipe = 0;    // copy processes that found no pipe
    std::uint64_t longRecords = 0;    // records above 4,096 bytes
    std::uint64_t failedListings = 0; // listings that could not be started
    std::uint64_t failedRemovals = 0; // file lists that could not be removed
};

/// What the copy program itself says of a detector: see docs/share-figures.md. Exact, whatever
/// died. It counts from one boot to the next.
struct CopyFigures {
    double since = 0;        // seconds since 1970, when it began to count
    std::uint64_t files = 0; // confirmed, or recovered for a run that had died
    std::uint64_t bytes = 0;
    std::uint64_t recovered = 0; // of the files
    std::uint64_t unconfirmed = 0;
    std::uint64_t listings = 0;
    std::uint64_t copies = 0;
    std::uint64_t flushErrors = 0;
    std::uint64_t entries = 0;          // of the last listing that ended
    std::optional<double> listedAgo;    // seconds since that listing ended
    std::optional<double> announcedAgo; // seconds since the last file was announced
    std::string lastFile;
};

/// One detector's part.
struct DetectorSnapshot {
    std::string id;
    std::string remoteIp;
    std::string shareUrl;
    std::string target; // after all rules

    enum class State {
        notServed,   // no daemon runs
        listing,     // a listing runs now
        copying,     // copy processes run
        idle,        // neither: it waits for its minimum pause
        unreachable, // its last listing failed
        hanging,     // its listing, or the preparation of its target, gets no answer
    };
    State state = State::notServed;
    int copyProcesses = 0; // running now

    std::optional<CopyFigures> figures; // nothing if the copy program keeps none

    std::string complaint;              // of its last listing; empty if it ended well
    std::optional<double> failingSince; // seconds since 1970; nothing if not known
    std::optional<double> noAnswer;     // seconds for which what hangs has had no answer
    bool preparing = false;             // what hangs is the preparation of its target

    // Of the cycle that runs:
    std::optional<double> cycleSeconds;    // since its oldest copy process was started
    std::optional<std::uint64_t> dealt;    // names on its file lists
    std::optional<std::uint64_t> finished; // of these, confirmed; needs figures, and its beginning

    // Of the target's file system; nothing if it can't be asked.
    bool targetIsSilent = false;            // it does not answer: a file server that is gone
    std::optional<std::uint64_t> freeBytes; // that root may fill
    std::optional<std::uint64_t> totalBytes;
    std::optional<std::uint64_t> freeInodes; // nothing where there is no limit either
    std::optional<std::uint64_t> totalInodes;
    std::optional<double> secondsUntilFull; // at the present rate; nothing if it is not filling
};

/// Threads of the daemon that wait in the hand-off pipe. Each was seen at one place, never woken,
/// for that many seconds; nothing if there is none.
struct PipeWaits {
    bool known = false;            // the daemon may be looked at
    std::optional<double> writing; // the pipe is full, and nothing is read from it
    std::optional<double> opening; // it waits for a reader
};

/// How much of the daemon's life the log's counts cover.
enum class LogCoverage {
    none,       // no log (the default /dev/null), or it can't be read
    sinceStart, // all lines since the daemon's banner
    sinceWatch, // the banner was rotated away: since this program looks
    withGap,    // lines were missed when it was rotated or emptied
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

/// What moves in a second. Rates begin when this program begins to watch.
struct Rates {
    std::optional<double> lastSeconds; // files, over the last 10 s
    std::optional<double> lastMinutes; // files, over the last 5 minutes or since watching began
    std::optional<double> bytes;       // over the last 10 s
    std::vector<double> history;       // files in each of the last 60 seconds at most, oldest first
};

/// How the totals moved while this program watched (see RecentChanges). Seconds since something was
/// last counted; nothing if it was not since watching began.
struct Recent {
    double watched = 0; // seconds since watching began; 0 in a single look
    std::optional<double> file;
    std::optional<double> lost;
    std::optional<double> failedHandoff;
    std::optional<double> withoutPipe;
    std::optional<double> failedStart; // of a copy process or a listing
    std::optional<double> complaint;

    /// For how long copy processes have been started or running without a file being counted;
    /// nothing when there are none, or files come.
    std::optional<double> fruitless;
    std::uint64_t fruitlessReports = 0; // copy processes that ended in that time
};

struct Snapshot {
    double time = 0;   // seconds since 1970
    double uptime = 0; // of the host, in seconds: durations are told from it

    DaemonState daemonState = DaemonState::unknown;
    std::string daemonText;                // one sentence as `skarnctl status` says it
    pid_t pid = 0;                         // when it runs, or seems to
    std::optional<double> upSince;         // seconds since 1970
    std::vector<std::string> startOptions; // of the running daemon
    std::vector<pid_t> otherDaemons;       // that run beside it
    std::optional<int> processLimit;       // copy processes one detector may have (status file)
    std::string configFile;
    std::string configProblem;  // one sentence when it can't be read
    bool configChanged = false; // changed after the daemon read it: what is shown may differ
    Deaths deaths;

    std::vector<DetectorSnapshot> detectors; // ascending by ID
    bool hasFigures = false;                 // the copy program keeps figures
    std::uint64_t files = 0;                 // by the copy program's figures, or else by the log
    std::uint64_t bytes = 0;                 // nothing counts them but the figures
    std::optional<double> filesSince;        // seconds since 1970, if known
    Counts counts;
    std::uint64_t missing = 0; // files reported lost that have not come since
    std::string lastFile;
    std::string lastComplaint;    // of the last copy process that had one: the line that tells most
    std::string listingComplaint; // in the daemon's error file, of a detector that is not known
    Rates rates;
    Recent recent;
    PipeSnapshot pipe;
    PipeWaits waits;
    std::optional<RelaySnapshot> relay; // nothing where none answers
    bool relayIsSilent = false;         // one is there, and does not answer
    LogSnapshot log;

    /// The daemon runs, or seems to.
    bool isServed() const {
        return daemonState == DaemonState::running || daemonState == DaemonState::seemsToRun;
    }
};

} // namespace control
