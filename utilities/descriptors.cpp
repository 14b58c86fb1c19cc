// Owning, moving and shielding file descriptors.
#include "utilities/descriptors.h"

#include "utilities/mutex_guard.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int firstOwnDescriptor = STDERR_FILENO + 1;

// Both guarded by the mutex that the shields are given.
int shieldCount = 0;
bool heldByShield[firstOwnDescriptor] = {};

} // namespace

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        reset();
        descriptor = other.release();
    }
    return *this;
}

int Descriptor::release() {
    const int released = descriptor;
    descriptor = -1;
    return released;
}

void Descriptor::reset() {
    if (descriptor >= 0) {
        close(release());
    }
}

int moveAboveStandard(int descriptor) {
    if (descriptor < 0) {
        return descriptor;
    }
    if (descriptor >= firstOwnDescriptor) {
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
        return descriptor;
    }
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, firstOwnDescriptor);
    // The limit may lie so low that no number above 2 is allowed at all, which counts as invalid.
    const int error = moved < 0 && errno == EINVAL ? EMFILE : errno;
    close(descriptor);
    errno = error;
    return moved;
}

void writeUnchecked(int descriptor, std::string_view text) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    static_cast<void>(written);
}

bool writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(descriptor, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

StandardDescriptorsShield::StandardDescriptorsShield(pthread_mutex_t* guardingMutex)
    : mutex(guardingMutex) {
    const MutexGuard guard(mutex);
    ++shieldCount;
    // Not for the first shield alone: a number that was in use for a moment then may be free now.
    // A new descriptor is the lowest free number, so the first one above the three says that none
    // of them is free.
    for (;;) {
        Descriptor placeholder(open("/", O_PATH | O_CLOEXEC));
        if (placeholder.get() < 0 || placeholder.get() >= firstOwnDescriptor) {
            return;
        }
        heldByShield[placeholder.release()] = true;
    }
}

StandardDescriptorsShield::~StandardDescriptorsShield() {
    const MutexGuard guard(mutex);
    if (--shieldCount > 0) {
        return;
    }
    for (int descriptor = 0; descriptor < firstOwnDescriptor; ++descriptor) {
        if (heldByShield[descriptor]) {
            close(descriptor);
            heldByShield[descriptor] = false;
        }
    }
}
