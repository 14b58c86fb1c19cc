// Starting the daemon, and finding out whether it really came up.
#include "control/service/start.h"

#include "control/check/check_command.h"
#include "control/child.h"
#include "control/command.h"
#include "control/configuration.h"
#include "control/control_files.h"
#include "control/service/daemon_processes.h"
#include "control/service/process_handle.h"
#include "daemon/global.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace control {

namespace {

/// For the start command, and again for what the daemon does then.
constexpr std::chrono::seconds limit{10};

/// Why no daemon may be started now; empty if one may.
std::string whyNotNow(const DaemonProcesses& found) {
    if (found.pid() != 0 || !found.unvouched.empty() || !found.hidden.empty()) {
        return found.text;
    }
    // The daemon would wait at a named pipe, and write through a link over some other file.
    struct stat status = {};
    if (lstat(pidFilePath().c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return pidFilePath() + " is in the way of the daemon's PID file and not a regular file; " +
               "remove it";
    }
    return {};
}

/// The log that the daemon will write: it says there what it lacks, as long as it has not detached.
struct Log {
    std::string path;
    off_t size = 0; // before the start

    /// The line of the new text that names what was missing; empty if there is none.
    std::string complaint() const {
        constexpr std::size_t enough = 65536;
        const std::string text = "\n" + readFile(path, enough, size).text.value_or("");
        const std::size_t begin = text.find("\nError: ");
        return begin == std::string::npos ? "" : firstLine(text.substr(begin));
    }
};

Log findLog() {
    Log log;
    if (const std::optional<std::string> file = findConfigFile()) {
        // Start options do not change it.
        const LoadedConfiguration loaded = loadConfiguration(*file, {});
        log.path = loaded.configuration ? loaded.configuration->logFileName : "";
        log.size = readFile(log.path, 0).status.st_size;
    }
    return log;
}

/// What the start command left.
struct Launch {
    int startError = 0;            // an errno value: it could not be run at all
    bool letGo = false;            // it ended, and it and the daemon closed their output, in time
    int status = 0;                // its wait status, once it has let go
    std::string output;            // what it printed, the beginning at least
    std::optional<Process> daemon; // what it left running, or as a zombie that is to be waited for
};

/// The oldest child that was not there before: the start command's own, whose parent this process
/// has become. (A daemon that has ended already may have left copy processes here, too.)
std::optional<Process> adoptedSince(const std::vector<pid_t>& before, const Process& starter) {
    std::optional<Process> oldest;
    for (const pid_t pid : childrenOf(getpid())) {
        const std::optional<Process> process = readProcess(pid);
        if (process && pid != starter.pid && process->startTicks >= starter.startTicks &&
            !std::binary_search(before.begin(), before.end(), pid) &&
            (!oldest || process->startTicks < oldest->startTicks)) {
            oldest = process;
        }
    }
    return oldest;
}

/// Runs the daemon's executable with these words, as a Child.
///
/// Makes this process the parent of what detaches from it (a "child subreaper", for the rest of its
/// life), so that the daemon is known for certain and its exit status can be had: wait for
/// `daemon`. A start command that has not let go in time is killed.
Launch launchDaemon(const std::string& path, const std::vector<std::string>& words) {
    Launch launch;
    if (prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
        launch.startError = errno;
        return launch;
    }
    const std::vector<pid_t> before = childrenOf(getpid());
    std::vector<std::string> command = {path};
    command.insert(command.end(), words.begin(), words.end());
    Child starter(command);
    launch.startError = starter.startError();
    if (launch.startError != 0) {
        return launch;
    }
    // Read before it is waited for, so that the number is still its own.
    const std::optional<Process> process = readProcess(starter.pid());
    launch.letGo = starter.finish(Child::Clock::now() + limit);
    if (process) {
        launch.daemon = adoptedSince(before, *process);
    }
    starter.kill();
    launch.status = starter.status().value_or(0);
    launch.output = starter.text();
    return launch;
}

/// How far the daemon has come, once it has detached.
struct Progress {
    bool hasPidFile = false;
    bool works = false;
    std::optional<int> status; // wait status, when it has ended
};

Progress watchUntilItWorks(pid_t pid) {
    Progress progress;
    const auto isDecided = [&progress, pid] {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            progress.status = status;
            return true;
        }
        const PidFile file = readPidFile();
        progress.hasPidFile = file.state == PidFile::State::whole && file.daemon == pid;
        // Its main thread starts one for each detector and then only waits.
        progress.works = progress.hasPidFile && threadsOf(pid).size() > 1;
        return progress.works;
    };
    waitFor(isDecided, limit);
    return progress;
}

/// The daemon's own words, as a sentence that follows "skarn did not start: ".
std::string whatWasSeen(const std::string& daemonPath, const Launch& launch,
                        const Progress& progress, const Log& log) {
    const std::string within = " within " + std::to_string(limit.count()) + " seconds";
    if (launch.startError != 0) {
        return "cannot run " + daemonPath + ": " + std::strerror(launch.startError);
    }
    if (launch.daemon) {
        const std::string daemon =
            "the daemon, process " + std::to_string(launch.daemon->pid) + ", ";
        return daemon + (progress.status       ? howItEnded(*progress.status)
                         : progress.hasPidFile ? "runs, but did not start to work" + within
                                               : "did not write its PID file" + within);
    }
    if (!launch.letGo) {
        return daemonPath + " did not detach" + within + " and was killed";
    }
    const std::string logged = log.complaint();
    std::string said = logged.empty() ? firstLine(launch.output) : logged;
    if (!said.empty()) {
        return said;
    }
    return daemonPath + " " + howItEnded(launch.status) + " and left no daemon";
}

} // namespace

std::string whyItWouldNotStart(const std::string& daemonPath,
                               const std::vector<std::string>& startOptions) {
    if (access(daemonPath.c_str(), X_OK) != 0) {
        return "cannot run " + daemonPath + ": " + std::strerror(errno);
    }
    return whatIsFatal(startOptions);
}

int startDaemon(const std::string& daemonPath, const std::vector<std::string>& startOptions) {
    const DaemonProcesses before = findDaemon(daemonPath, Search::always);
    if (const std::string reason = whyNotNow(before); !reason.empty()) {
        complain("nothing was started: " + reason);
        return failed;
    }
    const Log log = findLog();
    const Launch launch = launchDaemon(daemonPath, startOptions);
    Progress progress;
    if (launch.daemon) {
        progress = watchUntilItWorks(launch.daemon->pid);
    }
    if (progress.works) {
        say(GLOBAL::progName + " started, process " + std::to_string(launch.daemon->pid) +
            (before.copyProcesses.empty()
                 ? ""
                 : " (the daemon before it died and left copy processes: " +
                       listOfPids(before.copyProcesses) + ")"));
        return succeeded;
    }

    if (launch.daemon && !progress.status && !progress.hasPidFile) {
        // A daemon without a PID file can't be found by anybody: better none.
        kill(launch.daemon->pid, SIGKILL); // a child that was not waited for: the number is its own
        waitpid(launch.daemon->pid, nullptr, 0);
    }
    const std::string fatal = whatIsFatal(startOptions);
    complain(GLOBAL::progName +
             " did not start: " + whatWasSeen(daemonPath, launch, progress, log) +
             (fatal.empty() ? "" : " (" + fatal + ")"));
    return failed;
}

} // namespace control
