// Starting, stopping and asking after the daemon: the subcommands, and the work behind them.
#pragma once

#include "control/command.h"
#include "control/service/daemon_processes.h"
#include "control/service/process_handle.h"

#include <optional>
#include <string>
#include <vector>

namespace control {

/// Where the words begin that `start` or `restart` passes on: the index behind that word, which is
/// the first that is neither --daemon nor its value, and behind the --when-idle of `restart`. argc
/// for any other command line. These words are the daemon's, whatever they look like, so this
/// program's parser must not see them.
int firstStartOption(int argc, const char* const* argv);

/// Starts the daemon with these words, unless one runs. Prints one line with its number, or throws
/// one: with the daemon's own words, and what `check` finds that keeps it from coming up. The
/// caller has locked out every other skarnctl.
void startDaemon(const std::string& daemonPath, const std::vector<std::string>& startOptions);

/// How to stop.
struct StopOptions {
    /// How long a process may take to heed SIGTERM. The confirming copy program, told to end, still
    /// asks the share what became of its files: that may take some 15 seconds.
    std::chrono::seconds timeout{20};

    /// Wait so long for a moment in which no copy process runs; nothing: do not wait for one.
    std::optional<std::chrono::seconds> whenIdle;
};

/// Ends the daemon first, then its copy processes, then what is left of their sessions; likewise
/// each further daemon of this executable, which no PID file vouches for. Prints one line for each
/// of these kinds that says how; complains about what would not go. Takes away the PID file when
/// the daemon that wrote it has certainly ended. Returns the exit status: `succeeded` also when
/// nothing was there to end. Leaves to systemd what that would start again. The caller has locked
/// out every other skarnctl.
int stopDaemon(const std::string& daemonPath, const StopOptions& options);

/// What came of waiting for a moment in which nothing is under way.
enum class IdleEnd {
    ended,    // there was one, and the daemon was ended in it
    gone,     // the daemon had ended by itself
    busy,     // there was none in the time given: the daemon goes on
    cantTell, // this user may not look, or may not signal: the daemon goes on
};

/// Waits until the daemon has neither a copy process nor a file list, and ends it then.
///
/// The daemon writes its file lists before it starts copy processes, and removes them after it has
/// read and passed on all that these reported. So while none is there, nothing is under way. To be
/// sure of the moment the daemon is stopped (SIGSTOP), looked at again, and then either ended by
/// SIGTERM without running again, or let go (SIGCONT). While it is stopped, the signals that end or
/// stop this program wait, so that it is never left so.
IdleEnd endWhenIdle(const ProcessHandle& daemon, std::chrono::seconds patience);

/// True if a name in /tmp is that of a file list of this daemon.
bool isFileListOf(const std::string& name, pid_t daemon);

/// The service of systemd that would be surprised by an end of this daemon that it did not ask for,
/// since it may start it again: one whose main process the daemon is (or of the daemon's name,
/// where systemd does not answer), and which this program does not itself run in. Empty if there is
/// none: a service that has only started the daemon once, such as cron's, does not manage it.
std::string managingService(pid_t daemon);

/// The exit status that init scripts agree on: 0 running, 1 dead with a PID file, 3 not running,
/// 4 unknown; and 5, it seems to run, but only root can be sure.
int statusCode(DaemonState state);

/// A few lines of text. Start options are shown with what could steer a terminal in octal.
std::string statusText(const DaemonProcesses& found);

/// The same as one JSON object; `processLimit` is how many copy processes a detector may have.
std::string statusJson(const DaemonProcesses& found, const std::optional<int>& processLimit);

// The subcommands. Each does its work while no other skarnctl starts or stops the daemon, wherever
// it runs, and returns its exit status.
int runStart(const CommonOptions& common);
int runRestart(const CommonOptions& common, const StopOptions& options);
int runStop(const CommonOptions& common, const StopOptions& options);
int runStatus(const CommonOptions& common, bool asJson);

} // namespace control
