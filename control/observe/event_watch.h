// Tells what changed from one look to the next, for the event journal.
#pragma once

#include "control/observe/snapshot.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace control {

/// Tells what changed from one look to the next.
class EventWatch {
public:
    /// What is to be noted now; in the order in which it happened, as far as that is known.
    std::vector<std::string> changes(const Snapshot& snapshot);

private:
    struct Condition {
        std::string text;
        double since = 0; // by the host's uptime
        double seen = 0;
    };
    struct Tally {
        std::uint64_t counted = 0;
        std::uint64_t told = 0;
        double toldAt = 0;
    };

    void noteDaemon(const Snapshot& snapshot, std::vector<std::string>& texts);
    void noteConditions(const Snapshot& snapshot, std::vector<std::string>& texts);
    void noteCounts(const Snapshot& snapshot, std::vector<std::string>& texts);

    bool begun = false;
    pid_t daemon = 0;
    std::map<std::string, Condition> conditions; // by the key of their reason
    std::map<std::string, Tally> tallies;        // by what is counted
};

} // namespace control
