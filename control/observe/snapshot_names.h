// The names that other programs read for what a snapshot's states are.
#pragma once

#include "control/observe/snapshot.h"

namespace control {

/// In small letters and underscores, the same in JSON and in the metrics. They don't change: other
/// programs compare them.
const char* nameOf(Snapshot::DaemonState state);
const char* nameOf(DetectorSnapshot::State state);
const char* nameOf(PipeSnapshot::State state);
const char* nameOf(LogCoverage coverage);

} // namespace control
