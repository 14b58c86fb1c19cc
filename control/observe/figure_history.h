// How figures move from look to look: how fast, and which of them rose when.
#pragma once

#include "control/observe/snapshot.h"

#include <map>
#include <optional>
#include <vector>

namespace control {

/// A number that was looked at now and then, over the last minutes. Times are seconds of any clock
/// that never runs backwards; samples come in its order. Between two samples the number is taken to
/// have moved evenly.
class History {
public:
    /// Keeps the samples of the last `secondsKept` seconds, and one before them.
    explicit History(double secondsKept) : kept(secondsKept) {}

    /// One more sample. One that is not later than the last replaces it.
    void add(double time, double value);

    /// The change in a second over the last `seconds` before the last sample, or since the first
    /// one if that is shorter. Nothing if it is shorter than `atLeast`.
    std::optional<double> slope(double seconds, double atLeast) const;

    /// The changes within each of the last whole seconds, `count` at most, oldest first. A second
    /// counts when samples reach from its beginning to its end.
    std::vector<double> changes(int count) const;

private:
    double at(double time) const;

    double kept;
    std::map<double, double> samples; // by time
};

/// A count that begins anew when what is counted begins anew, as the files of a daemon that was
/// started again: the steps are added up.
class GrowingTotal {
public:
    /// Takes the count as it is now; `epoch` differs from the last one's when it began anew since.
    /// Returns the sum of all steps since the first call, which counts as 0.
    double take(unsigned long long count, unsigned long long epoch);

private:
    bool begun = false;
    unsigned long long lastCount = 0;
    unsigned long long lastEpoch = 0;
    double sum = 0;
};

/// Seconds until nothing is left of `free`, which changes by `slope` in a second. Nothing if it
/// does not shrink.
std::optional<double> secondsUntilGone(double free, std::optional<double> slope);

/// Tells a fault that lasts from one that is over. The counts of the first snapshot are history: it
/// is not known when they came about. Goes by the host's uptime, which nobody sets.
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
    Recent moments;    // when each was last seen, not how long ago
    double busyAt = 0; // when a copy process was last seen
};

} // namespace control
