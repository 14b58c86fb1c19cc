// Turning the detector blocks of the configuration into workers.
#include "config/config_text.h"
#include "daemon/daemon.h"
#include "transfer/worker.h"
#include "utilities/text.h"

#include <string>

void Daemon::parseDetectorIds(const std::string& text) {
    // Set once for the whole walk: a block without a pause inherits that of the last earlier block
    // that had one.
    int minPause = 0;
    int interrunPause = 0;
    for (const std::string& block : cutDetectorBlocks(text)) {
        std::string detectorId;
        std::string remoteIp;
        std::string source;
        std::string target;
        UTILITIES::readVar(block, "detectorID", detectorId);
        UTILITIES::readVar(block, "remoteIP", remoteIp);
        UTILITIES::readVar(block, "source", source);
        UTILITIES::readVar(block, "target", target);
        UTILITIES::readVar(block, "minpause", minPause);
        UTILITIES::readVar(block, "interrun_pause", interrunPause);
        detectors[detectorId] =
            new Worker(detectorId, remoteIp, source, target, minPause, interrunPause);
    }
}
