// Whether the daemon came up, and if not, why, from all that was seen of its start.
#include "control/service/start_report.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include <sys/wait.h>

namespace control {

namespace {

// The daemon's exit statuses.
constexpr int badCommandLine = 1;
constexpr int noFork = 8;
constexpr int noSession = 16;
constexpr int noRootFolder = 32;
constexpr int noPidFile = 64;

bool endedWith(int waitStatus, int exitStatus) {
    return WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == exitStatus;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string seconds(int count) {
    return std::to_string(count) + (count == 1 ? " second" : " seconds");
}

std::string because(const std::string& problem) {
    return problem.empty() ? std::string() : ": " + problem;
}

/// The line of the new log text that names what was missing; empty if there is none.
std::string errorLine(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.compare(0, 7, "Error: ") == 0) {
            return line;
        }
    }
    return {};
}

std::string noConfig(const StartObservation& seen) {
    std::string places;
    for (const std::string& path : seen.configPaths) {
        places += (places.empty() ? "neither " : " nor ") + path;
    }
    return "there is no configuration file: " + places + " can be read";
}

std::string noPassword(const StartObservation& seen) {
    return "the password file " + seen.passwordFile + " is missing";
}

std::string noCopyProgram(const StartObservation& seen) {
    return "the copy program " + seen.copyProgram + " is missing";
}

std::string copyProgramNotExecutable(const StartObservation& seen) {
    return "the copy program " + seen.copyProgram + " may not be executed by its owner";
}

std::string logNotWritable(const std::string& path, const std::string& problem) {
    return "the log " + path + " can't be written" + because(problem);
}

std::string badOptions(const std::string& what) {
    return "the daemon does not understand its start options: " + what;
}

/// The start command refused before it detached, with a status that says nothing.
std::string whyRefused(const StartObservation& seen) {
    const std::string complaint = firstLine(seen.errors);
    if (contains(complaint, "no config file found")) {
        return noConfig(seen);
    }
    if (complaint.compare(0, 14, "Cannot access ") == 0) {
        return logNotWritable(complaint.substr(14), seen.logProblem);
    }
    const std::string logged = errorLine(seen.newLogText);
    const auto says = [&logged](const std::string& path, const std::string& rest) {
        return logged == "Error: " + path + rest;
    };
    if (says(seen.passwordFile, " does not exist")) {
        return noPassword(seen);
    }
    if (says(seen.copyProgram, ": no such file or directory")) {
        return noCopyProgram(seen);
    }
    if (says(seen.copyProgram, " does not exist or is not executable")) {
        return seen.hasCopyProgram ? copyProgramNotExecutable(seen) : noCopyProgram(seen);
    }
    if (!complaint.empty()) {
        return "the daemon said: " + complaint;
    }
    if (!firstLine(seen.output).empty()) {
        return "the daemon only printed: " + firstLine(seen.output);
    }
    // Nothing was said where this program can read it.
    if (std::string missing = whatIsMissing(seen); !missing.empty()) {
        return missing;
    }
    return seen.daemonPath + " ended with status 0 and left no daemon";
}

std::string whyEnded(const StartObservation& seen, int status) {
    if (endedWith(status, noPidFile)) {
        return "the daemon can't write its PID file" + because(seen.pidFileProblem);
    }
    if (endedWith(status, noSession)) {
        return "the daemon could not begin a session of its own (status 16)";
    }
    if (endedWith(status, noRootFolder)) {
        return "the daemon could not change to the folder / (status 32)";
    }
    if (endedWith(status, 0)) {
        return seen.detectorCount == std::size_t{0}
                   ? "the daemon ended at once, because the configuration has no detector"
                   : "the daemon ended at once, with status 0";
    }
    return "the daemon, process " + std::to_string(seen.pid) + ", " + howItEnded(status);
}

/// It runs, but something that belongs to it is not there.
std::string whyIncomplete(const StartObservation& seen) {
    const std::string daemon = "the daemon, process " + std::to_string(seen.pid) + ",";
    const std::string within = " within " + seconds(seen.limitSeconds);
    if (!seen.pidFileIsIts) {
        return daemon + " did not write its PID file" + within + because(seen.pidFileProblem);
    }
    if (seen.logIsReadable && !seen.hasBanner) {
        return daemon + " runs, but wrote nothing into the log " + seen.logPath + within +
               ": is there space left on that file system?";
    }
    return daemon + " runs, but did not start to work" + within;
}

} // namespace

std::string whatIsMissing(const StartObservation& seen) {
    if (!seen.hasConfig) {
        return noConfig(seen);
    }
    if (!seen.badOption.empty()) {
        return badOptions(seen.badOption);
    }
    if (!seen.logProblem.empty()) {
        return logNotWritable(seen.logPath, seen.logProblem);
    }
    if (!seen.hasPasswordFile) {
        return noPassword(seen);
    }
    if (!seen.hasCopyProgram) {
        return noCopyProgram(seen);
    }
    if (!seen.copyProgramIsExecutable) {
        return copyProgramNotExecutable(seen);
    }
    return seen.detectorCount == std::size_t{0} ? "the configuration has no detector" : "";
}

std::string whyNotStarted(const StartObservation& seen) {
    if (seen.startError != 0) {
        return "cannot run " + seen.daemonPath + ": " + std::strerror(seen.startError);
    }
    if (seen.detached) {
        return seen.daemonStatus ? whyEnded(seen, *seen.daemonStatus) : whyIncomplete(seen);
    }
    if (!seen.letGo) {
        return seen.daemonPath + " did not detach within " + seconds(seen.limitSeconds) +
               " and was killed";
    }
    if (endedWith(seen.starterStatus, 0)) {
        return whyRefused(seen);
    }
    if (endedWith(seen.starterStatus, badCommandLine)) {
        const std::string complaint = firstLine(seen.errors);
        const bool isUsageText = complaint.empty() || complaint == "Usage:";
        return badOptions(!isUsageText             ? complaint
                          : seen.badOption.empty() ? "it printed its usage text"
                                                   : seen.badOption);
    }
    if (endedWith(seen.starterStatus, noFork)) {
        return "the system has no room for another process (status 8)";
    }
    const std::string complaint = firstLine(seen.errors);
    return seen.daemonPath + " " + howItEnded(seen.starterStatus) + because(complaint);
}

std::string howItEnded(int waitStatus) {
    if (WIFSIGNALED(waitStatus)) {
        return "was killed by signal " + std::to_string(WTERMSIG(waitStatus)) + " (" +
               strsignal(WTERMSIG(waitStatus)) + ")";
    }
    return "ended with status " + std::to_string(WEXITSTATUS(waitStatus));
}

std::string firstLine(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t begin = line.find_first_not_of(" \t\r");
        if (begin != std::string::npos) {
            return line.substr(begin, line.find_last_not_of(" \t\r") - begin + 1);
        }
    }
    return {};
}

} // namespace control
