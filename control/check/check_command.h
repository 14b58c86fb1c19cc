// skarnctl check: what the daemon would do with a configuration, and what is wrong with it.
#pragma once

#include "control/command.h"

namespace control {

/// Adds the subcommand "check". Its exit status is 0 when nothing is wrong, 1 when there are
/// warnings, 2 when there are errors or the configuration can't be read.
void addCheckCommand(CLI::App& app, const CommonOptions& common, int& exitStatus);

} // namespace control
