// Which processes are the daemon and its copy processes, whatever the PID file claims.
//
// A process is taken for one of them only if all that is in its row holds; the PID file alone
// proves nothing, since its numbers may belong to others by now.
//
// |              | the daemon                            | a copy process                         |
// |--------------|---------------------------------------|----------------------------------------|
// | running      | not a zombie, this pid namespace      | the same                               |
// | session      | leader of its own: it detached itself | the same, so that it is no listing     |
// | executable   | the daemon's: path (also one that was | not asked of a child; else the copy    |
// |              | replaced since) or device and inode   | program, or a script of that name      |
// | start time   | does not matter: the clock may have   | not after the PID file was written,    |
// |              | been set at the boot                  | not before its daemon                  |
// | belongs to   | line 1 of the PID file; or to nobody, | a child of the daemon; or, when that   |
// |              | when it is root's or this user's and  | has ended: named in the PID file, with |
// |              | has this /var/run                     | a file list of that daemon's number    |
//
// Start times of processes and of files come from different clocks, and a process' one is rounded:
// two seconds are forgiven.
//
// Whose executable may not be seen, since he has rights that this process lacks, is taken for the
// daemon, but never signalled, if all else holds and he has its name.
#pragma once

#include "control/configuration.h"
#include "control/control_files.h"
#include "control/process.h"

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace control {

/// A file that processes run: as a path without symbolic links, and as what stands there now.
struct Program {
    std::string path;
    std::optional<FileId> identity; // nothing when there is no such file
    bool isScript = false;          // "#!": the kernel shows its interpreter as executable
};

/// Looks at a program's file.
Program programAt(const std::string& path);

/// One process, with all that tells whether it is one of the daemon's.
struct Evidence {
    Process process;
    double started = 0;             // seconds since 1970
    uid_t user = 0;                 // that it runs as
    bool sameNamespace = true;      // its numbers are counted as ours are
    std::string executable;         // as the kernel shows it; empty if it may not be seen
    std::optional<FileId> executed; // the file behind it
    std::vector<std::string> words; // its command line
};

/// All but the command line; nothing if the process has ended. The command line stands in the
/// memory of the process, which another user can make to hang whoever reads it.
std::optional<Evidence> gatherEvidence(pid_t pid);

/// What evidence says of a claim.
struct Judgement {
    enum class Kind {
        confirmed, // it is what it was said to be
        refuted,   // it is not; `reason` says by what that is seen
        hidden,    // it may be, but this user is not allowed to look
    };
    Kind kind = Kind::refuted;
    std::string reason; // completes "process 812 ..."

    explicit operator bool() const { return kind == Kind::confirmed; }
};

/// Whether the process runs a daemon of this program, named by a PID file or not.
Judgement judgeDaemonProgram(const Evidence& evidence, const Program& daemon);

/// Whether the process is a copy process of the living daemon.
Judgement judgeChild(const Evidence& evidence, const Evidence& daemon);

/// What is known of a daemon that has ended.
struct EndedDaemon {
    pid_t pid = 0;
    double started = 0; // seconds since 1970; 0 if it is not known
    double ended = 0;   // or the time at which it last wrote its PID file
};

/// Whether the process is a copy process that a daemon has left behind.
Judgement judgeOrphan(const Evidence& evidence, const Program& copyProgram,
                      const EndedDaemon& daemon);

/// Whether a daemon runs.
enum class DaemonState {
    running,
    seemsToRun, // by all that this user may see; only root can be sure
    dead,       // its PID file is left
    notRunning,
    unknown,
};

/// The name of it that other programs read.
const char* nameOf(DaemonState state);

/// What was found out about the daemon at one moment.
struct DaemonProcesses {
    using State = DaemonState;

    State state = State::unknown;
    std::string text; // one sentence
    PidFile pidFile;

    // When it runs, or seems to:
    Process daemon;
    std::optional<double> upSince; // seconds since 1970
    std::vector<std::string> startOptions;

    /// When running: all its copy processes, also those that it has not yet recorded. When dead:
    /// those that it named and that still run. Ascending by number.
    std::vector<Process> copyProcesses;

    /// Processes that run the daemon's program as daemons and that no PID file vouches for; and
    /// those of its name that this user may not look at.
    std::vector<Process> unvouched;
    std::vector<Process> hidden;

    /// The daemon's number when it runs, or seems to, else 0.
    pid_t pid() const {
        return state == State::running || state == State::seemsToRun ? daemon.pid : 0;
    }
};

/// Whether to look for daemons that no PID file vouches for also when one is found without them:
/// that goes through all processes.
enum class Search { ifNoneIsFound, always };

/// Finds the daemon of this executable. Reads the PID file and /proc; takes up to a quarter of a
/// second when the PID file is damaged (see readPidFile).
DaemonProcesses findDaemon(const std::string& daemonPath, Search search = Search::ifNoneIsFound);

/// The configuration as the daemon of this executable has it: with its start options, if it runs.
LoadedConfiguration loadDaemonsConfiguration(const std::string& daemonPath);

/// The copy processes that a daemon has left behind, named in a PID file or not, ascending.
std::vector<Process> findOrphans(const EndedDaemon& daemon);

/// The processes that belong to the session of this leader, itself excepted, whether or not it has
/// ended: its number is given to nobody while they live. None if another process has the number.
std::vector<Process> findSessionMembers(const Process& leader);

/// "812", "812 and 813", "812, 813 and 814".
std::string listOfPids(const std::vector<Process>& processes);

} // namespace control
