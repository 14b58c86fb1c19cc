// skarnctl check: what the daemon would do with a configuration, and what is wrong with it.
#pragma once

#include "control/command.h"

#include <string>
#include <vector>

namespace control {

/// Adds the subcommand "check". Its exit status is 0 when nothing is wrong, 1 when there are
/// warnings, 2 when there are errors or the configuration can't be read.
void addCheckCommand(CLI::App& app, const CommonOptions& common, int& exitStatus);

/// What keeps the daemon from coming up with these start options on this host, as one sentence;
/// empty if nothing is found. Asks no detector.
std::string whatIsFatal(const std::vector<std::string>& startOptions);

/// Where the start options of the unit of systemd stand, and these.
constexpr const char* unitOptionsFile = "/etc/default/skarn";
std::vector<std::string> unitOptions();

} // namespace control
