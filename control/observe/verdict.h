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
        attention,    // it keeps up now, but something is going to hinder it, or just did
        cannotTell,   // it runs, but what it does can't be seen
        notKeepingUp, // files stay where they are, or are announced to nobody
        down,         // no daemon runs
    };
    struct Reason {
        Level level = Level::keepingUp;
        std::string text; // one clause; names in it may hold any byte
        std::string key;  // the same while it lasts, of what begins and ends; else empty
    };
    Level level = Level::keepingUp;
    std::vector<Reason> reasons; // the gravest first
    std::string note;            // what is to be known of the last day; empty: nothing
};

/// "KEEPING UP", "KEEPING UP, BUT", "CAN'T TELL", "NOT KEEPING UP" or "DOWN".
std::string headline(Verdict::Level level);

/// Judges what is now, by one snapshot alone. What is over is no reason, but for some minutes:
/// figures and events tell of it.
Verdict verdict(const Snapshot& snapshot);

} // namespace control
