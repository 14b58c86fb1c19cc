// The names that other programs read for what a snapshot's states are.
#include "control/observe/snapshot_names.h"

namespace control {

const char* nameOf(Snapshot::DaemonState state) {
    switch (state) {
    case Snapshot::DaemonState::running:
        return "running";
    case Snapshot::DaemonState::dead:
        return "dead";
    case Snapshot::DaemonState::notRunning:
        return "not_running";
    case Snapshot::DaemonState::unknown:
        break;
    }
    return "unknown";
}

const char* nameOf(DetectorSnapshot::State state) {
    switch (state) {
    case DetectorSnapshot::State::notServed:
        return "not_served";
    case DetectorSnapshot::State::listing:
        return "listing";
    case DetectorSnapshot::State::copying:
        return "copying";
    case DetectorSnapshot::State::idle:
        break;
    }
    return "idle";
}

const char* nameOf(PipeSnapshot::State state) {
    switch (state) {
    case PipeSnapshot::State::absent:
        return "absent";
    case PipeSnapshot::State::notAPipe:
        return "not_a_pipe";
    case PipeSnapshot::State::noReader:
        return "no_reader";
    case PipeSnapshot::State::read:
        return "read";
    case PipeSnapshot::State::unknown:
        break;
    }
    return "unknown";
}

const char* nameOf(LogCoverage coverage) {
    switch (coverage) {
    case LogCoverage::none:
        return "none";
    case LogCoverage::sinceStart:
        return "since_start";
    case LogCoverage::sinceOldest:
        return "since_oldest";
    case LogCoverage::withGap:
        break;
    }
    return "with_gap";
}

} // namespace control
