// A hold on one process, so that a signal meant for it never reaches a later owner of its number.
#include "control/service/process_handle.h"

#include "utilities/sleep.h"

#include <cerrno>
#include <csignal>

extern "C" { // which glibc 2.36 has forgotten
#include <sys/pidfd.h>
}

namespace control {

namespace {

/// The process that was seen, as it is now; nothing if it has ended.
std::optional<Process> again(const Process& seen) {
    std::optional<Process> now = readProcess(seen.pid);
    if (!now || now->startTicks != seen.startTicks || !isRunning(*now)) {
        return std::nullopt;
    }
    return now;
}

} // namespace

std::optional<ProcessHandle> ProcessHandle::hold(const Process& process) {
    ProcessHandle handle(process);
    handle.descriptor = Descriptor(pidfd_open(process.pid, 0));
    // Only now: the descriptor may be that of another process that has got the number.
    if (!again(process)) {
        return std::nullopt;
    }
    return handle;
}

bool ProcessHandle::isRunning() const {
    return again(seen).has_value();
}

ProcessHandle::Sent ProcessHandle::send(int signal) const {
    if (!again(seen)) {
        return Sent::ended;
    }
    const int result = descriptor.get() >= 0
                           ? pidfd_send_signal(descriptor.get(), signal, nullptr, 0)
                           : kill(seen.pid, signal);
    if (result == 0) {
        return Sent::sent;
    }
    return errno == EPERM ? Sent::notAllowed : Sent::ended;
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    constexpr int interval = 10;
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        UTILITIES::sleepMilliSeconds(interval);
    }
    return true;
}

} // namespace control
