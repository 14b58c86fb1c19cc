// What is wrong with a configuration that the daemon reads without a word.
#pragma once

#include "control/check/config_view.h"
#include "control/check/finding.h"
#include "control/configuration.h"

#include <string>
#include <string_view>
#include <vector>

namespace control {

/// Finds what the daemon would swallow in a configuration file, by comparing the file with what the
/// daemon's own code takes from it. Looks at nothing but its arguments. Ascending by line; what is
/// about no line, such as a start option, comes last. Of a file that is no configuration at all,
/// no more than a few hundred are told.
///
/// `start` is the same file with the start options applied, `startOptions` the options in it.
/// `folders` are those that the targets of its detectors lead to, one for each, in their order.
Findings findInConfiguration(const ConfigView& view, const Configuration& start,
                             const std::vector<std::string>& startOptions,
                             const std::vector<std::string>& folders);

/// The folder that a target leads to for the daemon, whose directory is "/": without ".", ".." and
/// needless slashes. Looks at no file, and so knows of no link.
std::string targetFolder(const std::string& target);

/// The known key that is most like a word, if one is like it.
std::string nearestKey(std::string_view word);

/// True for a text that a shell takes as one word, just as it stands.
bool isPlainWord(std::string_view text);

} // namespace control
