// The class Daemon: configuration, command line, detaching, and the detectors' workers.
#pragma once

#include "log/log_file.h"

#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <sys/stat.h>

class Worker;

/// The spine of the program. Built once, on main's stack: when the constructor returns, the
/// settings, the detectors and the log are ready; `start` then detaches and runs the workers. All
/// its work is done by the main thread. Failures before detaching end the process; their statuses
/// are told at each member.
class Daemon {
public:
    /// Version shown by the banner and by --version.
    static constexpr const char* version = "3.7.1";

    /// Configures the daemon through `init`.
    Daemon();

    /// Reads the configuration file and the command line, completes the targets, opens the log and
    /// checks the prerequisites. Returns only when all is well; otherwise ends the process: 1024
    /// (log can't be opened; message on standard error), 4096 (password file missing; message in
    /// the log), 2048 (copy program missing or not executable by its owner; message in the log), or
    /// as told at `readConfigFile` and `parseArguments`. A parent sees the low eight bits of these,
    /// that is 0.
    void init();

    /// Reads "/etc/skarn_orbelin.conf", else "/etc/skarn_orbelin/skarn_orbelin.conf", into the
    /// GLOBAL settings and creates the detectors. Ends the process with 512 and a message on
    /// standard error when neither opens.
    void readConfigFile();

    /// Creates one Worker for each detector block of the configuration text and records it in
    /// `detectors` under its ID. A repeated ID replaces the pointer; the earlier worker is neither
    /// deleted nor ever started.
    void parseDetectorIds(const std::string& text);

    /// Applies the command line in GLOBAL::argv over the settings and detectors. Ends the process
    /// with 1 on a bad command line (message on standard error) and with 0 after printing the
    /// version.
    void parseArguments();

    /// Writes the usage text to standard error.
    void usage() const;

    /// Forks; the calling process exits with 0 (8 if the fork failed). The child detaches, writes
    /// the PID file, banner, status file and settings, greets the consumer, starts every worker in
    /// ascending ID order and joins them in the same order. Exits 16, 32 or 64 when it can't become
    /// a session leader, change to "/", or write the PID file. Returns when every worker has ended.
    void start();

private:
    /// Takes `startTime` and `startTm` anew.
    void takeStartTime();
    void detach() const;
    void logBanner();
    static void writeStatusFile();
    void logSettings();
    void runWorkers();

    /// Starts all workers. Returns those that could be started.
    std::vector<Worker*> startWorkers();

    struct stat statBuffer;
    time_t startTime;
    struct tm* startTm; // localtime's own record, as of the last takeStartTime
    char currentDirectory[1024];
    LogFile
        logFile; // has no mutex: it writes before the workers run, and a few lines while they start

public:
    /// The detectors by ID. The workers are created by `parseDetectorIds` and never deleted.
    std::map<std::string, Worker*> detectors;
};
