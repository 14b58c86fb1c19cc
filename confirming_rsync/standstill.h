// Noticing that a child does nothing any more.
#pragma once

#include "confirming_rsync/relay.h"

#include <chrono>
#include <cstdint>
#include <optional>

#include <sys/types.h>

namespace confirming {

/// The bytes that the processes of a group have read and written since their starts, files, pipes
/// and connections alike. Nothing if the system does not tell. Ended processes count as none.
std::optional<std::uint64_t> bytesMovedBy(pid_t group);

/// Watches a process group: it stands still when for some time it has moved no byte at all. A
/// group that can't be looked into never does. Not for use by several threads.
class Standstill {
public:
    explicit Standstill(pid_t group) : group_(group) {}

    /// The group was seen to do something, or is being kept from it.
    void noteLife() { lastLife_ = Clock::now(); }

    /// True if there was no sign of life for the given time. Looks for one only now and then, when
    /// none was noted.
    bool hasLasted(std::chrono::milliseconds time);

private:
    pid_t group_;
    std::optional<std::uint64_t> moved_; // at the last look; nothing before the first
    Clock::time_point lastLife_ = Clock::now();
    Clock::time_point lastLook_ = Clock::now();
};

} // namespace confirming
