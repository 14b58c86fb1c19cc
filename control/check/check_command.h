// skarnctl check: what the daemon would do with a configuration, and what is wrong with it.
#pragma once

#include <string>
#include <vector>

namespace control {

/// What keeps the daemon from coming up with these start options on this host, as one sentence;
/// empty if nothing is found. Asks no detector.
std::string whatIsFatal(const std::vector<std::string>& startOptions);

/// Where the start options of the unit of systemd stand, and these.
constexpr const char* unitOptionsFile = "/etc/default/skarn";
std::vector<std::string> unitOptions();

} // namespace control
