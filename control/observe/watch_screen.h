// The full-screen view in a terminal: keys, sizes and colours; what it shows is watch_layout's.
#pragma once

#include "control/observe/snapshot_source.h"

namespace control {

/// Shows what the source sees, anew every so many seconds, until the operator leaves it. Needs a
/// terminal for input and output, and sets the process's locale to the user's; says in one line
/// what is missing. The terminal is as it was on return, and when a signal ends the program: SIGINT
/// leaves as the key q does, other signals end it as they would have.
///
/// Returns the exit status.
int runWatchScreen(SnapshotSource& source, double intervalSeconds);

} // namespace control
