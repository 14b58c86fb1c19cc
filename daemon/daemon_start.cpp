// Detaching, announcing the start, and running the workers.
#include "daemon/daemon.h"
#include "daemon/global.h"
#include "transfer/handoff_pipe.h"
#include "transfer/worker.h"
#include "utilities/descriptors.h"
#include "utilities/pid_file.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char* rule =
    "++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++";
static_assert(std::char_traits<char>::length(rule) == 78, "the banner's rules are 78 wide");

} // namespace

void Daemon::detach() const {
    const pid_t child = fork();
    if (child < 0) {
        exit(8);
    }
    if (child > 0) {
        exit(0);
    }
    umask(0);
    if (setsid() < 0) {
        exit(16);
    }
    if (chdir("/") != 0) {
        exit(32);
    }
    // They stay closed: no terminal is held, and nothing can be written to one by mistake.
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
}

void Daemon::logBanner() {
    logFile << "\n\n\n\n";
    logFile << rule << "\n\n";
    logFile << "++ " << GLOBAL::progName << " " << version << " started\n";
    // asctime ends its text with a line feed, so that an empty line follows the date.
    logFile << "++ on " << asctime(startTm) << "\n";
    logFile << rule << "\n";
    logFile << "\n\n\n\n";
    logFile << "++\n";
}

void Daemon::writeStatusFile() {
    GLOBAL::numberOfProcesses = 8;
    const std::string path = "/var/run/" + GLOBAL::progName + "_orbelin.stat";
    const Descriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, controlFileMode));
    writeUnchecked(file.get(), "njobs " + std::to_string(GLOBAL::numberOfProcesses) + "\n");
}

void Daemon::logSettings() {
    logFile << "++ settings:\n";
    logFile << "++ ---------\n";
    logFile << "++\n";
    logFile << "++ logfile: " << GLOBAL::logFileName << "\n";
    logFile << "++    max size of logfile: " << GLOBAL::logFileMaxSize << "\n";
    logFile << "++    max # of backuped logfiles: " << GLOBAL::logFileMaxNumber << "\n";
    logFile << "\n";
    if (getcwd(currentDirectory, sizeof currentDirectory) == nullptr) {
        currentDirectory[0] = '\0';
    }
    logFile << "++ current directory: " << currentDirectory << "\n";
    logFile << "++\n";
    logFile << "++\n";
    logFile << flush;
}

void Daemon::runWorkers() {
    for (Worker* const worker : startWorkers()) {
        worker->join();
    }
}

std::vector<Worker*> Daemon::startWorkers() {
    // This log has no mutex: without the shield a worker's "mkdir" could begin while the log is
    // open as 0, 1 or 2, and complain into it.
    const StandardDescriptorsShield shield(Thread::mainMutex);
    std::vector<Worker*> started;
    for (const auto& [id, worker] : detectors) {
        logFile << "++ Starting copy thread for detector " << id << endl;
        if (worker->start() == 0) {
            started.push_back(worker);
        }
    }
    return started;
}

void Daemon::start() {
    detach();
    const int failure = UTILITIES::setPidFile("/var/run/" + GLOBAL::progName + "_orbelin.pid", {});
    if (failure != 0) {
        exit(failure);
    }
    takeStartTime();
    logBanner();
    writeStatusFile();
    logSettings();
    sendUsershift();
    runWorkers();
    logFile.close();
}
