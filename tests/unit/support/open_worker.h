// A worker of which a test sees the fields.
#pragma once

#include "transfer/worker.h"

#include <string>

/// The fields of a worker, for tests to look at.
class OpenWorker : public Worker {
public:
    using Worker::detectorId;
    using Worker::evaluators;
    using Worker::interrunPause;
    using Worker::minPause;
    using Worker::pids;
    using Worker::remoteIp;
    using Worker::running;
    using Worker::sourcePath;
    using Worker::stopRequested;
    using Worker::targetPath;
    using Worker::Worker;
};

/// The fields of any worker as one text: ID|address|source|target|minimum pause|inter-run pause.
std::string describe(const Worker& worker);
