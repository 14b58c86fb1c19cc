// What a check of a configuration found, as text and as JSON.
#pragma once

#include "control/check/config_view.h"
#include "control/check/finding.h"
#include "control/configuration.h"

#include <optional>
#include <string>
#include <vector>

namespace control {

struct CheckReport {
    std::string file;                           // empty if none was found
    std::vector<std::string> startOptions;      // as given
    std::string optionsFile;                    // that they stand in; empty if it is none
    std::optional<Configuration> configuration; // nothing if the file can't be read
    std::optional<ConfigView> view;             // the same
    Findings findings;                          // of the file, then of the host
};

/// The daemon's plan and what is wrong with it, for people; each line ends in a line feed. Nothing
/// in it steers a terminal. With `unicode`, letters beyond ASCII are shown as they are; the
/// process's locale must then be a UTF-8 one.
std::string checkText(const CheckReport& report, bool unicode);

/// The same for programs: one JSON object and a line feed. Bytes that are no UTF-8 are replaced.
std::string checkJson(const CheckReport& report);

} // namespace control
