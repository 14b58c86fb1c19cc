// The transfer cycle: prepare the target, list the share, start the copy processes, wait for them,
// clean up.
#include "daemon/global.h"
#include "transfer/copy_command.h"
#include "transfer/copy_process.h"
#include "transfer/listing.h"
#include "transfer/rsync_evaluator.h"
#include "transfer/worker.h"
#include "utilities/descriptors.h"
#include "utilities/mutex_guard.h"
#include "utilities/pid_file.h"
#include "utilities/sleep.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/wait.h>

namespace {

/// Runs a shell command whose outcome does not matter: a target that can't be prepared shows when
/// files are copied.
void runUnchecked(const std::string& command) {
    const StandardDescriptorsShield shield(Thread::mainMutex);
    const int status = system(command.c_str());
    static_cast<void>(status);
}

/// Starts the listing; null, errno set, when that fails.
FILE* openListing(const std::string& command) {
    const StandardDescriptorsShield shield(Thread::mainMutex);
    FILE* const listing = popen(command.c_str(), "r");
    if (listing != nullptr) {
        fcntl(fileno(listing), F_SETFD, FD_CLOEXEC);
    }
    return listing;
}

} // namespace

void Worker::run() {
    running = true;
    stopRequested = false;
    log.open(GLOBAL::logFileName);
    const std::string url = shareUrl(remoteIp, sourcePath);
    while (!stopRequested) {
        cycle(url);
    }
    running = false;
}

void Worker::cycle(const std::string& url) {
    log.tryRotate(GLOBAL::logFileMaxSize, GLOBAL::logFileMaxNumber);
    prepareTarget();
    // Not written out here: while nothing is to be copied, an idle worker leaves the log file
    // alone.
    log << "++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++\n"
        << " ++++\n";

    const std::vector<FileList> fileLists = writeFileLists(listShare(url));
    if (fileLists.empty()) {
        UTILITIES::sleepMilliSeconds(minPause);
        return;
    }
    startCopyProcesses(fileLists, url);
    recordStartedProcesses();
    waitForCopyProcesses();
    recordEndedProcesses();
    finishEvaluators();
    removeFileLists(fileLists);
}

void Worker::prepareTarget() const {
    runUnchecked(makeTargetCommand(targetPath));
    if (!GLOBAL::usrdir.empty()) {
        runUnchecked(changeOwnerCommand(targetPath));
    }
}

NameList Worker::listShare(const std::string& url) {
    FILE* const listing = openListing(listingCommand(url));
    if (listing == nullptr) {
        log << detectorId << ": Error: Listing failed" << endl;
        return {};
    }
    NameList names = readListing(fileno(listing));
    pclose(listing);
    return names;
}

std::vector<FileList> Worker::writeFileLists(const NameList& names) {
    if (names.empty()) {
        return {};
    }
    const int n = copyProcessCount(names.size(), GLOBAL::numberOfProcesses);
    log << detectorId << " Starting " << n << " copy processes" << endl;
    return dealNames(names, n);
}

void Worker::startCopyProcesses(const std::vector<FileList>& fileLists, const std::string& url) {
    lock();
    pids.assign(fileLists.size(), 0);
    unlock();
    evaluators.assign(fileLists.size(), nullptr);

    for (std::size_t i = 0; i < fileLists.size(); ++i) {
        const std::string command = copyCommand(fileLists[i].name(), url, targetPath);
        log << detectorId << ": rsync call: " << command << endl << flush;
        startCopyProcess(i, command);
        if (i + 1 < fileLists.size()) {
            UTILITIES::sleepMilliSeconds(interrunPause);
        }
    }
}

void Worker::startCopyProcess(std::size_t slot, const std::string& command) {
    ReportPipe report;
    if (!report.open()) {
        logStartFailure("          ", errno);
        return;
    }
    const pid_t child = ::startCopyProcess(command, report);
    if (child < 0) {
        logStartFailure("       ", errno);
        return;
    }
    lock();
    pids[slot] = child;
    unlock();
    // Before the evaluator reads: it would wait for an end of file that this end withholds.
    report.writeEnd.reset();
    auto* const evaluator = new RsyncEvaluator(report.readEnd.release(), targetPath);
    if (evaluator->start() == 0) {
        evaluators[slot] = evaluator;
    } else {
        // No thread to be had: the report is read here, for unread it would stop the copy process
        // and lose the hand-off. That takes as long as the copying, in which the PID file must
        // name the process.
        lock();
        writePidFile();
        unlock();
        evaluator->run();
        delete evaluator;
    }
}

void Worker::logStartFailure(const char* indentation, int error) {
    char text[1024];
    log << detectorId << ": Error: Could not fork subprocess\n"
        << indentation << strerror_r(error, text, sizeof text) << endl;
}

void Worker::recordStartedProcesses() {
    const MutexGuard guard(mutex());
    pids.erase(std::remove(pids.begin(), pids.end(), 0), pids.end());
    writePidFile();
}

void Worker::waitForCopyProcesses() {
    lock();
    std::size_t remaining = pids.size();
    unlock();
    if (remaining == 0 || stopRequested) {
        return;
    }
    for (;;) {
        // Children of this thread alone: the other workers wait for theirs.
        const pid_t ended = waitpid(-1, nullptr, __WNOTHREAD);
        if (ended > 0) {
            const MutexGuard guard(mutex());
            const auto found = std::find(pids.begin(), pids.end(), ended);
            if (found != pids.end()) {
                log << detectorId << ": Child process " << ended << " terminated \n" << flush;
                pids.erase(found);
                remaining = pids.size();
            }
        } else if (remaining == 0 || stopRequested || errno == ECHILD) {
            // With ECHILD and some remaining, the system has reaped them itself: whoever started
            // the daemon has SIGCHLD ignored, which is inherited.
            return;
        }
    }
}

void Worker::recordEndedProcesses() {
    const MutexGuard guard(mutex());
    pids.clear();
    writePidFile();
}

void Worker::writePidFile() {
    std::vector<int> allPids;
    for (const Worker* worker : workers) {
        allPids.insert(allPids.end(), worker->pids.begin(), worker->pids.end());
    }
    UTILITIES::setPidFile("/var/run/" + GLOBAL::progName + "_orbelin.pid", allPids);
}

void Worker::finishEvaluators() {
    for (RsyncEvaluator*& evaluator : evaluators) {
        if (evaluator != nullptr) {
            evaluator->join();
            delete evaluator;
            evaluator = nullptr;
        }
    }
}

void Worker::removeFileLists(const std::vector<FileList>& fileLists) {
    for (const FileList& fileList : fileLists) {
        if (remove(fileList.name().c_str()) != 0) {
            const int error = errno;
            log << detectorId << ": Error: could not remove " << fileList.name() << "\n"
                << "   " << strerror(error) << endl;
        } else {
            log << detectorId << ": Removed file " << fileList.name() << endl;
        }
    }
}
