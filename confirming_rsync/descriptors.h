// Owning descriptors, and the state of those that the program was started with.
#pragma once

#include <utility>

namespace confirming {

/// Owns one descriptor, or none (-1), and closes it. Not for use by several threads.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(); }

    explicit operator bool() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }
    void close();

private:
    int descriptor_ = -1;
};

/// A pipe, both ends close-on-exec. Both are empty if the system gave none (errno says why).
struct Pipe {
    Descriptor readEnd;
    Descriptor writeEnd;
};
Pipe makePipe();

/// Opens /dev/null on each of 0, 1 and 2 that is closed, so that no descriptor opened later is
/// taken for standard input, output or error output. To be called before any other descriptor is
/// opened. False if one stays closed.
bool fillStandardDescriptors();

/// Closes what the caller left open beyond 0, 1 and 2.
void closeInheritedDescriptors();

} // namespace confirming
