// The worker object: its paths, its control surface, and the registry.
#include "transfer/worker.h"

std::set<Worker*> Worker::workers;

Worker::Worker(const std::string& id, const std::string& remoteAddress, const std::string& source,
               const std::string& target, int minimumPause, int interRunPause)
    : detectorId(id), remoteIp(remoteAddress), minPause(minimumPause), interrunPause(interRunPause),
      log(nullptr) {
    log.setMutex(mutex());
    setSource(source);
    setTarget(target);
    workers.insert(this);
}

Worker::~Worker() {
    workers.erase(this);
}

void Worker::setSource(const std::string& source) {
    sourcePath = source;
    if (sourcePath.empty() || sourcePath.back() != '/') {
        sourcePath += '/';
    }
    if (sourcePath.front() != '/') {
        sourcePath.insert(0, 1, '/');
    }
}

void Worker::setTarget(const std::string& target) {
    targetPath = target;
    // Any "/." counts, also one that begins a hidden directory's name.
    if (targetPath.find("/.") != std::string::npos) {
        return;
    }
    if (targetPath.empty() || targetPath.back() != '/') {
        targetPath += '/';
    }
    targetPath += '.';
}

std::string Worker::target() const {
    return targetPath;
}

bool Worker::isRunning() const {
    return running;
}

const std::vector<int>& Worker::pidList() const {
    return pids;
}

void Worker::stop(bool wait) {
    stopRequested = true;
    if (wait) {
        join();
    }
}
