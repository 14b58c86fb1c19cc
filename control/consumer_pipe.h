// Who reads the hand-off pipe, found out without touching it.
#pragma once

#include "control/observe/snapshot.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace control {

/// The state of the pipe that the daemon hands files on through, and its readers.
///
/// The pipe is never opened: an open for writing would release a consumer that waits in its own
/// open, and give it an end of file. The descriptors of all processes are looked through instead,
/// and the open calls in which they wait. A descriptor for writing alone, such as the daemon's, is
/// no reader. One call costs a few system calls for each open file of the processes that may read
/// the pipe: root's, its owner's, its group's or, as its mode says, all. Of others nothing is
/// believed.
///
/// `unknown` when the path itself may not be looked at, when no reader was found but some process
/// may not be looked at, and when the look is not over within two seconds.
PipeSnapshot lookAtConsumerPipe();

/// The same for a path of the caller's choice.
PipeSnapshot lookAtConsumerPipe(const std::string& path);

/// True if the text of a /proc/PID/fdinfo file tells of a descriptor that can be read from.
bool isOpenForReading(std::string_view fdinfo);

/// A call of open that a process has not come back from.
struct PendingOpen {
    int folder = 0; // that a relative path starts from; AT_FDCWD for the working directory
    std::uint64_t pathAddress = 0; // in the process's memory
};

/// Reads the text of a /proc/PID/task/TID/syscall file. Nothing unless it is an open for reading.
std::optional<PendingOpen> parsePendingOpen(std::string_view text);

} // namespace control
