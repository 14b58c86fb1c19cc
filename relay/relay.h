// The running relay: the parts, the threads that they run on, and their end.
#pragma once

#include "relay/settings.h"

#include <functional>

namespace relay {

/// Runs until SIGTERM or SIGINT. Takes over the pipe that the service manager has passed, if it
/// has, tells it when all is up, and gives it signs of life. Returns the status for exit. Must be
/// called before any other thread is started. `afterCommit` is for tests: see Intake.
int runRelay(const Settings& settings, const std::function<void()>& afterCommit);

} // namespace relay
