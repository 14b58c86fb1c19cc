// Who reads the hand-off pipe, found out without touching it.
#pragma once

#include "control/process.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace control {

/// The hand-off pipe and who reads it.
struct PipeSnapshot {
    enum class State {
        absent,
        notAPipe,
        noReader,
        read,    // at least one process holds it open for reading
        held,    // systemd alone does, for a service that it starts when something comes
        unknown, // not allowed to look, or the look takes too long
    };
    State state = State::unknown;
    std::string path;
    std::vector<std::string> readers; // "name (pid)"
};

/// The state of the pipe at this path, through which the daemon hands files on, and its readers.
///
/// The pipe is never opened: an open for writing would release a consumer that waits in its own
/// open, and give it an end of file. The descriptors of all processes are looked through instead,
/// and the open calls in which they wait. A descriptor for writing alone, such as the daemon's, is
/// no reader. One call costs a few system calls for each open file of the processes that may read
/// the pipe: root's, its owner's, its group's or, as its mode says, all. Of others nothing is
/// believed. Paths that lead to a dead file server may let it wait (see Aside).
///
/// `unknown` when the path itself may not be looked at, and when no reader was found but some
/// process may not be looked at.
PipeSnapshot lookAtConsumerPipe(const std::string& path);

/// True if the text of a /proc/PID/fdinfo file tells of a descriptor that can be read from.
bool isOpenForReading(std::string_view fdinfo);

/// Which processes may open a file for reading.
enum class ReadRight {
    none,
    asAnybody, // since everybody may
    asItsOwn,  // as root, its owner or one of its group; or it can't be told
};

/// That of a process with this text of its /proc/PID/status file to what belongs to this user and
/// group and has this mode.
ReadRight readRight(std::string_view status, uid_t owner, gid_t group, mode_t mode);

/// A system call that a thread has not come back from, as far as it matters here.
struct PendingCall {
    enum class Kind { openToRead, openToWrite, write };
    Kind kind = Kind::openToRead;
    int descriptor = 0; // that it writes to; or the folder that a relative path starts from
    std::uint64_t pathAddress = 0; // in the process's memory, of an open
};

/// Reads the text of a /proc/PID/task/TID/syscall file. Nothing if it is none of these calls.
std::optional<PendingCall> parsePendingCall(std::string_view text);

/// A thread of the daemon that waits in the hand-off pipe.
struct PipeWait {
    pid_t thread = 0;
    bool opens = false;         // it waits for a reader; else for room
    std::uint64_t switches = 0; // how often it went to sleep so far: the same number, the same wait

    bool operator==(const PipeWait& other) const {
        return thread == other.thread && opens == other.opens && switches == other.switches;
    }
};

/// Those of this daemon. Nothing if it may not be looked at.
std::optional<std::vector<PipeWait>> findPipeWaits(pid_t daemon);

} // namespace control
