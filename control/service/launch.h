// One run of the command that starts the daemon, up to the moment at which it has detached or not.
#pragma once

#include "control/process.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace control {

/// What the start command left.
struct Launch {
    int startError = 0;            // an errno value: it could not be run at all
    bool letGo = false;            // it ended, and it and the daemon closed their output, in time
    int status = 0;                // its wait status, once it has let go
    std::string output;            // what it printed, the beginning at least
    std::optional<Process> daemon; // what it left running, or as a zombie that is to be waited for
};

/// Runs the daemon's executable with these words, as a Child.
///
/// Makes this process the parent of what detaches from it (a "child subreaper", for the rest of its
/// life), so that the daemon is known for certain and its exit status can be had: wait for
/// `daemon`. A start command that has not let go within `limit` is killed.
Launch launchDaemon(const std::string& path, const std::vector<std::string>& words,
                    std::chrono::milliseconds limit);

} // namespace control
