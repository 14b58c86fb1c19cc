// Starting the daemon, and finding out whether it really came up.
#pragma once

#include <string>
#include <vector>

namespace control {

/// Starts the daemon with these words, unless one runs. Prints one line with its number, or
/// complains in one: with the daemon's own words, and what `check` finds that keeps it from coming
/// up. Returns the exit status for it. The caller holds the ServiceLock.
int startDaemon(const std::string& daemonPath, const std::vector<std::string>& startOptions);

/// What would keep the daemon from coming up with these words, as far as that can be told without
/// a start: one sentence, empty when nothing is known.
std::string whyItWouldNotStart(const std::string& daemonPath,
                               const std::vector<std::string>& startOptions);

} // namespace control
