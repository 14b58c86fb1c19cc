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
    int limitSeconds = 0; // how long it was waited for

    // The start command:
    int startError = 0;    // errno value: it could not be run
    bool letGo = true;     // it ended, and its output was closed
    int starterStatus = 0; // its wait status
    std::string output;    // what it printed
    std::string errors;    // and on standard error
    std::string badOption; // what is wrong with the start options; empty if nothing is

    // The daemon:
    bool detached = false;           // the start command left one
    int pid = 0;                     // its number, when it detached
    std::optional<int> daemonStatus; // its wait status, when it has ended
    bool pidFileIsIts = false;       // line 1 of the PID file is its number
    std::string pidFileProblem;      // why it can't be written; empty if nothing is known

    // The log:
    std::string logPath;
    bool logIsReadable = false; // a file, and this user may read it
    bool hasBanner = false;
    std::string newLogText; // what was added since the start
    std::string logProblem; // why it can't be written; empty if nothing is known

    // What it needs:
    std::vector<std::string> configPaths; // where it looks
    bool hasConfig = false;
    std::string passwordFile;
    bool hasPasswordFile = true;
    std::string copyProgram;
    bool hasCopyProgram = true;
    bool copyProgramIsExecutable = true;      // by its owner
    std::optional<std::size_t> detectorCount; // nothing if the configuration can't be read
};

/// Why the daemon did not come up, as one sentence that follows "skarn did not start: ".
std::string whyNotStarted(const StartObservation& seen);

/// How a process ended, from its wait status: "ended with status 64", "was killed by signal 9
/// (Killed)".
std::string howItEnded(int waitStatus);

/// The first line of a text that is not empty, without blanks around it.
std::string firstLine(const std::string& text);

} // namespace control
