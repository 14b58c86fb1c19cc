// A worker of which a test sees the fields.
#include "tests/unit/support/open_worker.h"

std::string describe(const Worker& worker) {
    // Pointers to members that a derived class may name reach into any worker.
    const auto text = [&worker](std::string Worker::*field) { return worker.*field; };
    const auto number = [&worker](int Worker::*field) { return std::to_string(worker.*field); };
    return text(&OpenWorker::detectorId) + "|" + text(&OpenWorker::remoteIp) + "|" +
           text(&OpenWorker::sourcePath) + "|" + text(&OpenWorker::targetPath) + "|" +
           number(&OpenWorker::minPause) + "|" + number(&OpenWorker::interrunPause);
}
