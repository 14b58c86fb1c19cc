// What this host lacks, or has in the way, for a configuration to work.
#pragma once

#include "control/check/finding.h"
#include "control/configuration.h"

#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

namespace control {

/// What was found about the target of one detector.
struct TargetLook {
    std::string folder; // that it leads to, through links if they could be followed
    Findings findings;

    /// Folders on the way that others than root may change, and who that is.
    std::vector<std::pair<std::string, std::string>> unsafe;
};

/// Looks at the targets of all detectors, for some seconds at most: a file server may be dead.
/// One for each detector, in their order.
std::vector<TargetLook> lookAtTargets(const Configuration& configuration);

/// Looks at the other places that the daemon will use: password file, copy program, hand-off pipe,
/// log, /tmp, /var/run. Changes nothing, and opens nothing but the password file and the copy
/// program, for reading. What only root can tell is left out for others; one finding says so.
/// `file` is the configuration file. The findings of `targets` are among those that it returns.
Findings findOnHost(const Configuration& configuration, const std::string& file,
                    const std::vector<TargetLook>& targets);

/// Lists each share once, all at the same time, with the daemon's own command (but not through a
/// shell), and tells of those that can't be listed or do not answer within some seconds. Shares
/// that would mean something to a shell are left out.
Findings findInShares(const Configuration& configuration);

/// What rsync, run by root, would have against a password file of this kind and content.
Findings judgePasswordFile(const struct stat& status, std::string_view content);

/// What the daemon, or the system, would have against a copy program of this kind. `content` is
/// what the file holds, or as much as is known of it.
Findings judgeCopyProgram(const struct stat& status, std::string_view content);

} // namespace control
