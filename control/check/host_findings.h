// What this host lacks, or has in the way, for a configuration to work.
#pragma once

#include "control/check/finding.h"
#include "control/configuration.h"

#include <string>
#include <string_view>

#include <sys/stat.h>

namespace control {

/// Looks at the places that the daemon will use: targets, password file, copy program, hand-off
/// pipe, log, /tmp, /var/run. Changes nothing, and opens nothing but the password file and the copy
/// program, for reading. What only root can tell is left out for others; one finding says so.
/// `file` is the configuration file.
Findings findOnHost(const Configuration& configuration, const std::string& file);

/// What rsync, run by root, would have against a password file of this kind and content.
Findings judgePasswordFile(const struct stat& status, std::string_view content);

/// What the daemon, or the system, would have against a copy program of this kind. `content` is
/// what the file holds, or as much as is known of it.
Findings judgeCopyProgram(const struct stat& status, std::string_view content);

} // namespace control
