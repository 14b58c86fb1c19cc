// What is told of the daemon to people and to scripts.
#pragma once

#include "control/service/daemon_processes.h"

#include <optional>
#include <string>

namespace control {

/// The exit status that init scripts agree on: 0 running, 1 dead with a PID file, 3 not running,
/// 4 unknown; and 5, it seems to run, but only root can be sure.
int statusCode(DaemonProcesses::State state);

/// A few lines of text. Start options are shown with what could steer a terminal in octal.
std::string statusText(const DaemonProcesses& found);

/// The same as one JSON object; `processLimit` is how many copy processes a detector may have.
std::string statusJson(const DaemonProcesses& found, const std::optional<int>& processLimit);

} // namespace control
