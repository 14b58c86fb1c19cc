// A hold on one process, so that a signal meant for it never reaches a later owner of its number.
#pragma once

#include "control/process.h"
#include "utilities/descriptors.h"

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

namespace control {

/// One process for as long as it lives. Where the kernel has descriptors of processes (Linux 5.3)
/// a signal goes through one; else the process is looked at right before it.
class ProcessHandle {
public:
    /// Takes hold of a process that was seen before. Nothing if it has ended since, whoever has its
    /// number now.
    static std::optional<ProcessHandle> hold(const Process& process);

    const Process& process() const { return seen; }
    pid_t pid() const { return seen.pid; }

    bool isRunning() const;

    enum class Sent {
        sent,
        ended,      // there was nobody left to send it to
        notAllowed, // needs the rights of root or of the process' user
    };
    Sent send(int signal) const;

private:
    explicit ProcessHandle(const Process& process) : seen(process) {}

    Process seen;
    Descriptor descriptor; // of the process; none where the kernel has no such thing
};

/// Looks every few milliseconds whether a condition has come true; false when the time has run out.
bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit);

} // namespace control
