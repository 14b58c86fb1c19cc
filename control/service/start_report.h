// Whether the daemon came up, and if not, why, from all that was seen of its start.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace control {

/// What was seen of one start.
struct StartObservation {
    std::string daemonPath;

    // The start command:
    std::string output;    // what it printed
    std::string errors;    // and on standard error
    std::string badOption; // what is wrong with the start options; empty if nothing is
    int limitSeconds = 0;  // how long it was waited for, and for the daemon again
    int startError = 0;    // errno value: it could not be run
    int starterStatus = 0; // its wait status

    // The daemon:
    int pid = 0;                     // its number, when it detached
    std::optional<int> daemonStatus; // its wait status, when it has ended
    std::string pidFileProblem;      // why it can't be written; empty if nothing is known

    // The log:
    std::string logPath;
    std::string newLogText; // what was added since the start
    std::string logProblem; // why it can't be written; empty if nothing is known

    // What it needs:
    std::vector<std::string> configPaths; // where it looks
    std::string passwordFile;
    std::string copyProgram;
    std::optional<std::size_t> detectorCount; // nothing if the configuration can't be read

    // What was found:
    bool letGo = true;          // the start command ended, and its output was closed
    bool detached = false;      // it left a daemon
    bool pidFileIsIts = false;  // line 1 of the PID file is the daemon's number
    bool logIsReadable = false; // a file, and this user may read it
    bool hasBanner = false;     // in the new text of the log
    bool hasConfig = false;
    bool hasPasswordFile = true;
    bool hasCopyProgram = true;
    bool copyProgramIsExecutable = true; // by its owner
};

/// Why the daemon did not come up, as one sentence that follows "skarn did not start: ".
std::string whyNotStarted(const StartObservation& seen);

/// What of all that it needs is missing or wrong, in the order in which the daemon looks; empty if
/// nothing is. Only what was found, and `logProblem`, counts.
std::string whatIsMissing(const StartObservation& seen);

/// How a process ended, from its wait status: "ended with status 64", "was killed by signal 9
/// (Killed)".
std::string howItEnded(int waitStatus);

/// The first line of a text that is not empty, without blanks around it.
std::string firstLine(const std::string& text);

} // namespace control
