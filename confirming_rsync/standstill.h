// Noticing that a child does nothing any more.
#pragma once

#include "confirming_rsync/relay.h"

#include <chrono>
#include <cstdint>
#include <optional>

#include <sys/types.h>

namespace confirming {

/// Watches a process group: it stands still when for some time it has moved no byte at all. A
/// group that can't be looked into never does. Not for use by several threads.
class Standstill {
public:
    explicit Standstill(pid_t group) : group_(group) {}

    /// True if there was no sign of life for the given time. `lastLife` is when the last one was
    /// seen by others. Looks for one only now and then, when none was.
    bool hasLasted(std::chrono::milliseconds time, Clock::time_point lastLife);

private:
    pid_t group_;
    std::optional<std::uint64_t> moved_; // at the last look; nothing before the first
    Clock::time_point lastLife_ = Clock::now();
    Clock::time_point lastLook_ = Clock::now();
};

} // namespace confirming
