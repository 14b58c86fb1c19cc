// Ending the daemon and what it has started.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace control {

/// How to stop.
struct StopOptions {
    /// How long a process may take to heed SIGTERM. The confirming copy program, told to end, still
    /// asks the share what became of its files: that may take some 15 seconds.
    std::chrono::seconds timeout{20};

    /// Wait so long for a moment in which no copy process runs; nothing: do not wait for one.
    std::optional<std::chrono::seconds> whenIdle;
};

/// Ends the daemon first, then its copy processes, then what is left of their sessions; likewise
/// each further daemon of this executable, which no PID file vouches for. Prints one line for each
/// of these kinds that says how; complains about what would not go. Takes away the PID file when
/// the daemon that wrote it has certainly ended. Returns the exit status: `succeeded` also when
/// nothing was there to end. Leaves to systemd what that would start again. The caller holds the
/// ServiceLock.
int stopDaemon(const std::string& daemonPath, const StopOptions& options);

} // namespace control
