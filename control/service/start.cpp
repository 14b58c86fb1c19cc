// Starting the daemon, and finding out whether it really came up.
#include "control/service/start.h"

#include "control/command.h"
#include "control/configuration.h"
#include "control/control_files.h"
#include "control/service/daemon_processes.h"
#include "control/service/launch.h"
#include "control/service/new_log_text.h"
#include "control/service/process_handle.h"
#include "control/service/start_report.h"
#include "daemon/daemon.h"
#include "daemon/global.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace control {

namespace {

/// For the start command, and again for what the daemon does then.
constexpr std::chrono::seconds limit{10};

/// Why no daemon may be started now; empty if one may.
std::string whyNotNow(const DaemonProcesses& found) {
    if (found.state == DaemonProcesses::State::running) {
        return "nothing was started: " + found.text;
    }
    if (!found.unvouched.empty()) {
        return "nothing was started: " + found.text;
    }
    // The daemon would wait at a named pipe, and write through a link over some other file.
    struct stat status = {};
    if (lstat(pidFilePath().c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return "nothing was started: " + pidFilePath() +
               " is in the way of the daemon's PID file and not a regular file; remove it";
    }
    return {};
}

/// Why a file can't be written to, as this user; empty if it can.
std::string whyNotWritable(const std::string& path) {
    if (access(path.c_str(), F_OK) == 0) {
        if (std::filesystem::is_directory(path)) {
            return std::strerror(EISDIR);
        }
        return access(path.c_str(), W_OK) == 0 ? "" : std::strerror(errno);
    }
    const std::string folder = std::filesystem::path(path).parent_path().string();
    if (!folder.empty() && access(folder.c_str(), W_OK | X_OK) != 0) {
        return folder + ": " + std::strerror(errno);
    }
    return {};
}

/// What can be told before the start; the rest is filled in later.
StartObservation lookAtPrerequisites(const std::string& daemonPath,
                                     const std::vector<std::string>& startOptions,
                                     Configuration& configuration) {
    StartObservation seen;
    seen.daemonPath = daemonPath;
    seen.limitSeconds = static_cast<int>(limit.count());
    seen.configPaths = configFilePaths();
    if (const std::optional<std::string> path = findConfigFile()) {
        seen.hasConfig = true;
        // The options change neither the log nor the number of detectors.
        if (LoadedConfiguration loaded = loadConfiguration(*path, {}); loaded.configuration) {
            configuration = std::move(*loaded.configuration);
            seen.detectorCount = configuration.detectors.size();
        }
        seen.badOption = loadConfiguration(*path, startOptions).problem;
    }
    seen.logPath = configuration.logFileName;
    seen.passwordFile = GLOBAL::passwordFile;
    seen.copyProgram = GLOBAL::rsyncCommand;
    struct stat status = {};
    seen.hasPasswordFile = stat(GLOBAL::passwordFile.c_str(), &status) == 0;
    seen.hasCopyProgram = stat(GLOBAL::rsyncCommand.c_str(), &status) == 0;
    seen.copyProgramIsExecutable = seen.hasCopyProgram && (status.st_mode & S_IXUSR) != 0;
    return seen;
}

/// Looks whether the daemon has all that a daemon has once it works.
bool hasComeUp(StartObservation& seen, const NewLogText& log) {
    const PidFile file = readPidFile();
    seen.pidFileIsIts = file.state == PidFile::State::whole && file.daemon == seen.pid;
    seen.newLogText = log.read();
    seen.logIsReadable = log.isReadable();
    seen.hasBanner = seen.newLogText.find("++ " + GLOBAL::progName + " " + Daemon::version +
                                          " started\n") != std::string::npos;
    // Its main thread starts one for each detector and then only waits; without a detector it ends.
    const bool works = seen.detectorCount != std::size_t{0} && threadCount(seen.pid) > 1;
    return works && seen.pidFileIsIts && (seen.hasBanner || !seen.logIsReadable);
}

/// Looks whether the daemon has ended.
bool hasEnded(StartObservation& seen) {
    int status = 0;
    if (!seen.daemonStatus && waitpid(seen.pid, &status, WNOHANG) == seen.pid) {
        seen.daemonStatus = status;
    }
    return seen.daemonStatus.has_value();
}

/// A daemon without a PID file can't be found by anybody: better none.
void end(const StartObservation& seen) {
    kill(seen.pid, SIGKILL); // a child that was not waited for: the number is its own
    waitpid(seen.pid, nullptr, 0);
}

} // namespace

std::string whyItWouldNotStart(const std::string& daemonPath,
                               const std::vector<std::string>& startOptions) {
    if (access(daemonPath.c_str(), X_OK) != 0) {
        return "cannot run " + daemonPath + ": " + std::strerror(errno);
    }
    Configuration configuration;
    StartObservation seen = lookAtPrerequisites(daemonPath, startOptions, configuration);
    seen.logProblem = whyNotWritable(seen.logPath);
    return whatIsMissing(seen);
}

int startDaemon(const std::string& daemonPath, const std::vector<std::string>& startOptions) {
    const DaemonProcesses before = findDaemon(daemonPath);
    if (const std::string reason = whyNotNow(before); !reason.empty()) {
        complain(reason);
        return failed;
    }

    Configuration configuration;
    StartObservation seen = lookAtPrerequisites(daemonPath, startOptions, configuration);
    const NewLogText log(configuration.logFileName, configuration.logFileMaxNumber);

    const Launch launch = launchDaemon(daemonPath, startOptions, limit);
    seen.startError = launch.startError;
    seen.letGo = launch.letGo;
    seen.starterStatus = launch.status;
    seen.output = launch.output;
    seen.errors = launch.errors;
    bool isUp = false;
    if (launch.daemon) {
        seen.detached = true;
        seen.pid = launch.daemon->pid;
        waitFor([&] { return hasEnded(seen) || (isUp = hasComeUp(seen, log)); }, limit);
    }
    seen.newLogText = log.read();
    if (isUp) {
        std::printf("%s started, process %d%s\n", GLOBAL::progName.c_str(), seen.pid,
                    before.copyProcesses.empty()
                        ? ""
                        : (" (the daemon before it died and left copy processes: " +
                           listOfPids(before.copyProcesses) + ")")
                              .c_str());
        return succeeded;
    }

    seen.pidFileProblem = whyNotWritable(pidFilePath());
    if (!seen.pidFileProblem.empty()) {
        seen.pidFileProblem = pidFilePath() + ": " + seen.pidFileProblem;
    }
    seen.logProblem = whyNotWritable(seen.logPath);
    if (seen.detached && !seen.daemonStatus && !seen.pidFileIsIts) {
        end(seen);
    }
    complain(GLOBAL::progName + " did not start: " + whyNotStarted(seen));
    return failed;
}

} // namespace control
