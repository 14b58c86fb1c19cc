// The command line of skarn-relay, and the way to the command that it names.
#pragma once

#include "relay/relay.h"

namespace relay {

/// Does what the words say, and returns the status for exit.
int runCommandLine(int argc, char** argv, const Circumstances& circumstances);

} // namespace relay
