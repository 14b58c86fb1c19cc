// At most one start, stop or restart at a time.
#include "control/service/service_lock.h"

#include "control/service/process_handle.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>

namespace control {

namespace {

constexpr std::chrono::seconds patience{10};

} // namespace

std::string serviceLockPath() {
    return "/var/run/skarnctl.lock";
}

ServiceLock::ServiceLock()
    : descriptor(open(serviceLockPath().c_str(),
                      O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600)) {
    if (descriptor.get() < 0) {
        forbidden = errno == EACCES || errno == EPERM;
        problem_ = "cannot open " + serviceLockPath() + ": " + std::strerror(errno) +
                   (forbidden ? "; this needs root's rights" : "");
        return;
    }
    if (!waitFor([this] { return flock(descriptor.get(), LOCK_EX | LOCK_NB) == 0; }, patience)) {
        problem_ = "another skarnctl is starting or stopping the daemon (it has " +
                   serviceLockPath() + " locked)";
    }
}

} // namespace control
