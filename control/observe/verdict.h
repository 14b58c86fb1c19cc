// Whether the daemon keeps up, in one line, and why not: what is read first at night.
#pragma once

#include "control/observe/snapshot.h"

#include <string>
#include <vector>

namespace control {

struct Verdict {
    /// From the best to the worst.
    enum class Level {
        keepingUp,
        attention,    // it keeps up now, but something happened or is going to
        cannotTell,   // it runs, but what it does can't be seen
        notKeepingUp, // files stay where they are, or are announced to nobody
        down,         // no daemon runs
    };
    Level level = Level::keepingUp;
    std::vector<std::string> reasons; // the gravest first; names in them may hold any byte
};

/// "KEEPING UP", "KEEPING UP, BUT", "CAN'T TELL", "NOT KEEPING UP" or "DOWN".
std::string headline(Verdict::Level level);

/// Judges by one snapshot alone. Faults that lie more than five minutes back, or of which a single
/// look can't tell how old they are, no longer say that it does not keep up.
Verdict verdict(const Snapshot& snapshot);

/// The headline and the reasons in one line: "NOT KEEPING UP: nobody reads ...; 3 files were ...".
std::string sentence(const Verdict& verdict);

} // namespace control
