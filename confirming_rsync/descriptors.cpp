// Pipes, whole texts, and the state of the descriptors that the program was started with.
#include "confirming_rsync/descriptors.h"

#include <array>
#include <cerrno>
#include <cstddef>

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

bool readText(const Descriptor& file, std::string& text) {
    std::array<char, 65536> buffer{};
    ssize_t count = 0;
    text.clear();
    while ((count = TEMP_FAILURE_RETRY(::read(file.get(), buffer.data(), buffer.size()))) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return count == 0;
}

std::optional<std::string> readTextFile(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    std::string text;
    return file && readText(file, text) ? std::optional(text) : std::nullopt;
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
