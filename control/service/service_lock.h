// At most one start, stop or restart at a time.
#pragma once

#include "utilities/descriptors.h"

#include <string>

namespace control {

/// Where the lock is taken. The file stays; what counts is who has it locked.
std::string serviceLockPath();

/// Holds the lock until it is destroyed. No child inherits it.
class ServiceLock {
public:
    /// Takes the lock, waiting some seconds for another skarnctl to let go of it.
    ServiceLock();

    bool isHeld() const { return problem_.empty(); }

    /// One sentence that says why it is not held.
    const std::string& problem() const { return problem_; }

    /// It is not held because this user may not have it.
    bool isForbidden() const { return forbidden; }

private:
    Descriptor descriptor;
    std::string problem_;
    bool forbidden = false;
};

} // namespace control
