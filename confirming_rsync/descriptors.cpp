// Pipes, and the state of the descriptors that the program was started with.
#include "confirming_rsync/descriptors.h"

#include <array>
#include <cerrno>

#include <fcntl.h>
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
        // The lowest free descriptor is this one.
        if (::fcntl(descriptor, F_GETFD) == -1 && ::open("/dev/null", O_RDWR) != descriptor) {
            return false;
        }
    }
    return true;
}

void closeInheritedDescriptors() {
    ::close_range(3, ~0U, 0);
}

} // namespace confirming
