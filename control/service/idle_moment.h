// The moment at which the daemon can be ended without a confirmed file that goes unannounced.
#pragma once

#include "control/service/process_handle.h"

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

namespace control {

/// What came of waiting for such a moment.
enum class IdleEnd {
    ended,    // there was one, and the daemon was ended in it
    gone,     // the daemon had ended by itself
    busy,     // there was none in the time given: the daemon goes on
    cantTell, // this user may not look, or may not signal: the daemon goes on
};

/// True if a name in /tmp is that of a file list of this daemon.
bool isFileListOf(const std::string& name, pid_t daemon);

/// Waits until the daemon has neither a copy process nor a file list, and ends it then.
///
/// The daemon writes its file lists before it starts copy processes, and removes them after it has
/// read and passed on all that these reported. So while none is there, nothing is under way. To be
/// sure of the moment the daemon is stopped (SIGSTOP), looked at again, and then either ended by
/// SIGTERM without running again, or let go (SIGCONT). While it is stopped, the signals that end or
/// stop this program wait, so that it is never left so.
IdleEnd endWhenIdle(const ProcessHandle& daemon, std::chrono::seconds patience);

} // namespace control
