// Telling one process from every other, also from a later one with the same number.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace confirming {

/// A process of this machine, for ever: its number is given again to others, all three together are
/// not.
struct ProcessIdentity {
    std::string boot;        // the kernel's id of the boot it ran under
    pid_t pid = 0;           //
    std::uint64_t start = 0; // when it started, in the kernel's ticks since that boot
};

bool operator==(const ProcessIdentity& left, const ProcessIdentity& right);

/// The id of this boot; empty if the system does not tell.
std::string currentBoot();

/// The process that has this number now. Nothing if there is none, or the system does not tell.
std::optional<ProcessIdentity> identityOf(pid_t pid);

/// True if that very process is known to run no more. One that has ended and was not yet waited for
/// is dead; one of which the system tells nothing may live.
bool isDead(const ProcessIdentity& process);

/// What the kernel tells of a process in /proc/PID/stat.
struct ProcessStatus {
    char state = '?';
    pid_t group = 0;
    std::uint64_t start = 0;

    /// False if it has ended, and was not yet waited for.
    bool isRunning() const { return state != 'Z' && state != 'X'; }
};

/// Reads that text. Nothing if it is not in the kernel's form. The program's name, which may hold
/// any byte, does not mislead it.
std::optional<ProcessStatus> parseProcessStatus(std::string_view text);

/// The second in which this machine has started, by the wall clock as it is set now. Nothing if the
/// system does not tell.
std::optional<std::int64_t> secondOfBoot();

/// Reads it in the text of /proc/stat.
std::optional<std::int64_t> parseSecondOfBoot(std::string_view text);

/// True if that second is known to lie between the boot and `now`. One after `now` is of a time
/// when the clock went wrong, and tells nothing.
bool isSinceBoot(std::int64_t second, std::optional<std::int64_t> boot, std::int64_t now);

/// Nanoseconds since the boot, asleep or not. Grows from one call to a later one in any process.
std::uint64_t nanosecondsSinceBoot();

} // namespace confirming
