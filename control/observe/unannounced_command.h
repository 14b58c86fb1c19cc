// skarnctl unannounced: files that were copied and that the consumer may not know of.
#pragma once

#include "control/command.h"

namespace control {

/// Adds the subcommand. When it is called it writes its status to `exitStatus`.
void addUnannouncedCommand(CLI::App& app, const CommonOptions& common, int& exitStatus);

} // namespace control
