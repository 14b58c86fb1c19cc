// Looks at the daemon from outside, again and again, and says what it saw.
#pragma once

#include "control/observe/snapshot.h"

#include <memory>
#include <string>

namespace control {

/// Where to look.
struct SnapshotOptions {
    std::string configFile; // empty: where the daemon looks
    std::string daemonPath; // of the daemon's executable
};

/// Reads the copy program's figures, the log (through its rotations), the PID and the status file,
/// the configuration, the event journal, /proc and the free space at the targets. Writes nothing,
/// starts nothing and waits for nobody. For one thread at a time.
class SnapshotSource {
public:
    explicit SnapshotSource(SnapshotOptions options);
    ~SnapshotSource();
    SnapshotSource(const SnapshotSource&) = delete;
    SnapshotSource& operator=(const SnapshotSource&) = delete;

    /// What is known now. Rates are those over the calls so far, so call it regularly: every second
    /// or so. Never throws for what it finds or does not find outside; what can't be seen is said
    /// in the snapshot.
    Snapshot look();

private:
    class State;
    std::unique_ptr<State> state;
};

} // namespace control
