// Start-up while still attached to the terminal: configuration, targets, log, prerequisites.
#include "daemon/daemon.h"
#include "daemon/global.h"
#include "transfer/worker.h"

#include <cstdlib>
#include <iostream>

#include <unistd.h>

namespace {

/// Replaces the first occurrence of `word` in `text`; later ones stay.
void replaceFirst(std::string& text, const std::string& word, const std::string& replacement) {
    const std::size_t position = text.find(word);
    if (position != std::string::npos) {
        text.replace(position, word.size(), replacement);
    }
}

} // namespace

Daemon::Daemon()
    : statBuffer(), startTime(0), startTm(nullptr), currentDirectory(), logFile(nullptr) {
    init();
}

void Daemon::takeStartTime() {
    startTime = time(nullptr);
    startTm = localtime(&startTime);
}

void Daemon::init() {
    takeStartTime();

    char workingDirectory[1024];
    if (getcwd(workingDirectory, sizeof workingDirectory) == nullptr) {
        // Nothing depends on it.
        workingDirectory[0] = '\0';
    }

    readConfigFile();
    parseArguments();

    replaceFirst(GLOBAL::usrdir, "$UID", GLOBAL::uid);
    replaceFirst(GLOBAL::usrdir, "$GID", GLOBAL::gid);
    if (!GLOBAL::usrdir.empty()) {
        for (const auto& [id, worker] : detectors) {
            std::string target = worker->target();
            if (target.empty() || target.back() != '/') {
                target += '/';
            }
            worker->setTarget(target + GLOBAL::usrdir);
        }
    }

    logFile.open(GLOBAL::logFileName);
    if (logFile.openFailed) {
        std::cerr << "Cannot access " << GLOBAL::logFileName << std::endl;
        exit(1024);
    }
    if (stat(GLOBAL::passwordFile.c_str(), &statBuffer) != 0) {
        logFile << "Error: " << GLOBAL::passwordFile << " does not exist\n";
        logFile.close();
        exit(4096);
    }
    if (stat(GLOBAL::rsyncCommand.c_str(), &statBuffer) != 0) {
        logFile << "Error: " << GLOBAL::rsyncCommand << ": no such file or directory\n";
        logFile.close();
        exit(2048);
    }
    // Only the owner's bit counts, whoever the process runs as.
    if (stat(GLOBAL::rsyncCommand.c_str(), &statBuffer) != 0 ||
        (statBuffer.st_mode & S_IXUSR) == 0) {
        logFile << "Error: " << GLOBAL::rsyncCommand << " does not exist or is not executable\n";
        logFile.close();
        exit(2048);
    }
}
