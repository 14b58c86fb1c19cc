// Pipes, and the state of the descriptors that the program was started with.
#include "confirming_rsync/descriptors.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace confirming {

Pipe makePipe() {
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return {};
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

bool fillStandardDescriptors() {
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) == -1 && errno == EBADF) {
            // The lowest free descriptor is this one.
            if (::open("/dev/null", O_RDWR) != descriptor) {
                return false;
            }
        }
    }
    return true;
}

void closeInheritedDescriptors() {
    if (::close_range(3, ~0U, 0) == 0) {
        return;
    }
    // A kernel before 5.9.
    constexpr rlim_t most = 65536;
    struct rlimit limit {};
    const rlim_t end =
        ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? std::min(limit.rlim_cur, most) : most;
    for (rlim_t descriptor = 3; descriptor < end; ++descriptor) {
        ::close(static_cast<int>(descriptor));
    }
}

} // namespace confirming
