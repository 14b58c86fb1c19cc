// Which unit of systemd runs the daemon.
#pragma once

#include <string>

#include <sys/types.h>

namespace control {

/// The service that would be surprised by an end of this daemon that it did not ask for, since it
/// may start it again: one whose main process the daemon is (or of the daemon's name, where systemd
/// does not answer), and which this program does not itself run in. Empty if there is none: a
/// service that has only started the daemon once, such as cron's, does not manage it.
std::string managingService(pid_t daemon);

} // namespace control
