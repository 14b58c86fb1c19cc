// What changed from one snapshot to the next: tells a fault that lasts from one that is over.
#pragma once

#include "control/observe/snapshot.h"

namespace control {

/// Remembers what it needs of the snapshots before. The counts of the first one are history: it
/// does not know when they came about. Goes by the host's uptime, which nobody sets.
class RecentChanges {
public:
    /// Fills in `recent` of the newest snapshot from all that were noted and this one.
    void note(Snapshot& snapshot);

private:
    struct Totals {
        Counts counts;
        std::uint64_t files = 0;
    };

    std::optional<Totals> before;
    double began = 0;
    Recent moments; // when each was last seen, not how long ago
    std::optional<double> fruitlessSince;
    double busyAt = 0;                  // when a copy process was last seen
    std::uint64_t fruitlessReports = 0; // since fruitlessSince
};

} // namespace control
