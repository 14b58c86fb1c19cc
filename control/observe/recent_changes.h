// What changed from one snapshot to the next: tells a fault that lasts from one that is over.
#pragma once

#include "control/observe/snapshot.h"

namespace control {

/// Remembers what it needs of the snapshots before. The counts of the first one are history: it
/// does not know when they came about.
class RecentChanges {
public:
    /// Fills in `recent` of the newest snapshot from all that were noted and this one.
    void note(Snapshot& snapshot);

private:
    std::optional<Counts> before; // of all detectors
    double began = 0;
    std::optional<double> file;
    std::optional<double> lost;
    std::optional<double> failedHandoff;
    std::optional<double> complaint;
    std::optional<double> fruitlessSince;
    double busyAt = 0;                  // when a copy process was last seen
    std::uint64_t fruitlessReports = 0; // since fruitlessSince
};

} // namespace control
