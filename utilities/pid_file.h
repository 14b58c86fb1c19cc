// The PID file: the daemon's process ID and those of its running copy processes.
#pragma once

#include <string>
#include <vector>

namespace UTILITIES {

/// Rewrites the file at `path`: the caller's process ID, then every entry of `pids` that is not 0,
/// a line each. Returns 0, or 64 when the file can't be opened for writing (its content then
/// stays). A failure while writing is not reported; nothing is written after it, so that line 1 is
/// never another process than the caller. Takes no lock: once workers run, callers hold
/// Thread::mainMutex. A reader may see the file half-written.
int setPidFile(const std::string& path, const std::vector<int>& pids);

} // namespace UTILITIES
