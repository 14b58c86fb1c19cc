// skarnctl metrics: the daemon's figures for Prometheus, over HTTP or once.
#pragma once

#include "control/command.h"

namespace control {

/// Adds the subcommand. Its callback serves or writes until it gets SIGTERM or SIGINT, or prints
/// the figures (--once), and sets the exit status. `common` and `exitStatus` must outlive the
/// parsing.
void addMetricsCommand(CLI::App& app, const CommonOptions& common, int& exitStatus);

} // namespace control
