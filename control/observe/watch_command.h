// skarnctl watch: shows what the daemon does.
#pragma once

#include "control/command.h"

namespace control {

/// Adds the subcommand. When it is called it writes its status to `exitStatus`.
void addWatchCommand(CLI::App& app, const CommonOptions& common, int& exitStatus);

} // namespace control
