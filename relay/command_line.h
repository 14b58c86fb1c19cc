// The command line of skarn-relay: it runs the relay, or asks one that runs over its Unix socket.
#pragma once

#include "relay/relay.h"

namespace relay {

/// Does what the words say, and returns the status for exit. `afterCommit` is for tests: see
/// Intake.
int runCommandLine(int argc, char** argv, std::function<void()> afterCommit);

} // namespace relay
