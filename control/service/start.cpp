// Starting the daemon, and finding out whether it really came up.
#include "control/check/findings.h"
#include "control/child.h"
#include "control/command.h"
#include "control/configuration.h"
#include "control/service/service_commands.h"
#include "daemon/global.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace control {

namespace {

/// For the start command, and again for what the daemon does then.
constexpr std::chrono::seconds limit{10};

/// The configuration that the daemon will read, as it is without start options; nothing if it can't
/// be read here.
std::optional<Configuration> findConfiguration() {
    const std::optional<std::string> file = findConfigFile();
    return file ? loadConfiguration(*file, {}).configuration : std::nullopt;
}

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

/// Waits until the daemon, which has detached, works. What was seen instead, if it does not. One
/// without detectors never does.
std::string watchUntilItWorks(pid_t pid, bool hasDetectors) {
    bool hasPidFile = false;
    std::optional<int> ended; // its wait status
    const auto isDecided = [&] {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            ended = status;
            return true;
        }
        const PidFile file = readPidFile();
        hasPidFile = file.state == PidFile::State::whole && file.daemon == pid;
        // Its main thread starts one for each detector and then only waits.
        return hasPidFile && hasDetectors && threadsOf(pid).size() > 1;
    };
    if (waitFor(isDecided, limit) && !ended) {
        return {};
    }
    if (!ended && !hasPidFile) {
        // A daemon without a PID file can't be found by anybody: better none.
        kill(pid, SIGKILL); // a child that was not waited for: the number is its own
        waitpid(pid, nullptr, 0);
    }
    return "the daemon, process " + std::to_string(pid) + ", " +
           (ended ? howItEnded(*ended)
                  : (hasPidFile ? "runs, but did not start to work within "
                                : "did not write its PID file within ") +
                        std::to_string(limit.count()) + " seconds");
}

/// Runs the daemon's executable with these words, as a Child; gives the number of what that leaves
/// running to `daemon`, and the daemon's own words if that does not work.
///
/// Makes this process the parent of what detaches from it (a "child subreaper", for the rest of its
/// life), so that the daemon is known for certain and its exit status can be had. A start command
/// that has not let go in time is killed.
std::string launch(const std::string& path, const std::vector<std::string>& words, pid_t& daemon) {
    const std::optional<Configuration> configuration = findConfiguration();
    // The daemon says there what it lacks, as long as it has not detached.
    const std::string log = configuration ? configuration->logFileName : "";
    const off_t logSize = readFile(log, 0).status.st_size;
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    const std::vector<pid_t> before = childrenOf(getpid());
    std::vector<std::string> command = {path};
    command.insert(command.end(), words.begin(), words.end());
    Child starter(command);
    if (starter.startError() != 0) {
        return "cannot run " + path + ": " + std::strerror(starter.startError());
    }
    // Read before it is waited for, so that the number is still its own.
    const std::optional<Process> process = readProcess(starter.pid());
    const bool hasLetGo = starter.finish(Child::Clock::now() + limit);
    const std::optional<Process> left =
        process ? adoptedSince(before, *process) : std::optional<Process>();
    starter.kill();
    if (left) {
        daemon = left->pid;
        return watchUntilItWorks(daemon, !configuration || !configuration->detectors.empty());
    }
    if (!hasLetGo) {
        return path + " did not detach within " + std::to_string(limit.count()) +
               " seconds and was killed";
    }
    constexpr std::size_t enough = 65536;
    const std::string logged = "\n" + readFile(log, enough, logSize).text.value_or("");
    const std::size_t complaint = logged.find("\nError: ");
    const std::string said =
        firstLine(complaint == std::string::npos ? starter.text() : logged.substr(complaint));
    return said.empty()
               ? path + " " + howItEnded(starter.status().value_or(0)) + " and left no daemon"
               : said;
}

} // namespace

void startDaemon(const std::string& daemonPath, const std::vector<std::string>& startOptions) {
    const DaemonProcesses before = findDaemon(daemonPath, Search::always);
    if (before.pid() != 0 || !before.unvouched.empty() || !before.hidden.empty()) {
        throw std::runtime_error("nothing was started: " + before.text);
    }
    // The daemon would wait at a named pipe, and write through a link over some other file.
    struct stat status = {};
    if (lstat(pidFilePath().c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw std::runtime_error("nothing was started: " + pidFilePath() +
                                 " is in the way of the daemon's PID file and not a regular file; "
                                 "remove it");
    }
    pid_t daemon = 0;
    if (const std::string said = launch(daemonPath, startOptions, daemon); !said.empty()) {
        const std::string fatal = whatIsFatal(startOptions);
        throw std::runtime_error(GLOBAL::progName + " did not start: " + said +
                                 (fatal.empty() ? "" : " (" + fatal + ")"));
    }
    // Where systemd has called, it need not guess which one to watch: it gives up guessing when an
    // rsync has lost its parent just now, and would not start a daemon again that it does not know.
    sd_notify(0, ("MAINPID=" + std::to_string(daemon)).c_str());
    say(GLOBAL::progName + " started, process " + std::to_string(daemon) +
        (before.copyProcesses.empty() ? ""
                                      : " (the daemon before it died and left copy processes: " +
                                            listOfPids(before.copyProcesses) + ")"));
}

} // namespace control
