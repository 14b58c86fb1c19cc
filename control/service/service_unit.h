// Which unit of systemd a process belongs to.
#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

namespace control {

/// The service that the text of /proc/PID/cgroup names ("skarn.service"); empty if it names none,
/// as for processes of a login or of a host without systemd.
std::string serviceIn(std::string_view cgroups);

/// The same for a process; empty also when it has ended.
std::string serviceOf(pid_t pid);

/// The service that would be surprised by an end of this daemon that it did not ask for, since it
/// starts it again: one of the daemon's name, which this program does not itself run in. Empty if
/// there is none.
std::string managingService(pid_t daemon);

} // namespace control
