// Pipes, and the state of the descriptors that the program was started with.
#pragma once

#include "utilities/descriptors.h"

namespace confirming {

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
