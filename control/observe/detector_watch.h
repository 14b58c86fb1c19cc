// What the daemon does for each detector: by its children in /proc, and by what the copy program
// says of its listings and copies.
#pragma once

#include "control/configuration.h"
#include "control/observe/snapshot.h"
#include "control/process.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace control {

/// Looks again and again. With a copy program that keeps no figures, what is left to tell an
/// unreachable share from an empty one is the complaint in the daemon's error file, which all
/// detectors share and each listing empties. For one thread at a time.
class DetectorWatch {
public:
    explicit DetectorWatch(std::string folderOfFigures) : base(std::move(folderOfFigures)) {}

    /// Adds these detectors to the snapshot, whose times are set. `daemon` serves them; null if
    /// none does.
    void look(const std::vector<Detector>& detectors, const Process* daemon, Snapshot& snapshot);

private:
    /// A listing or a preparation that runs, and since when its processes have read nothing.
    struct Answer {
        std::uint64_t startTicks = 0;
        std::uint64_t bytes = 0;
        double unchangedSince = 0;
    };

    /// The file lists of a cycle.
    struct Cycle {
        FileId list;
        std::uint64_t dealt = 0;
        std::optional<std::uint64_t> begunAt; // files that had been counted before; if it was seen
    };

    /// What was seen of a detector so far.
    struct Known {
        Answer answer;
        Cycle cycle;
        std::optional<std::uint64_t> files; // counted at the last look
        std::string complaint;
        double complainedAt = 0;
    };

    void addFigures(const Process* daemon, Snapshot& snapshot) const;
    void addChildren(const Process& daemon, const std::string& root, Snapshot& snapshot);
    void noteAnswer(const Process& child, const Snapshot& snapshot, DetectorSnapshot& detector);
    void addProgress(const std::string& root, const std::string& list, DetectorSnapshot& detector);
    void readErrorFile(const std::string& root, Snapshot& snapshot);

    std::string base;
    std::map<std::string, Known> known; // by ID; "" has the complaint of one that is not known
};

/// The first line of a text that tells a cause; what rsync puts around it is left out.
std::string causeIn(const std::string& text);

} // namespace control
