// The signal policy: every signal keeps the system's default action.
#pragma once

/// The daemon installs no handler and changes no disposition: a terminating signal ends it at once,
/// and so does SIGPIPE when the consumer closes the named pipe while a record is being written.
namespace SIGNAL_HANDLING {

/// Does nothing with the signal number it is given. Never installed.
void signalHandler(int signalNumber);

} // namespace SIGNAL_HANDLING
