// One thing that is wrong with a configuration or with the host that it is for.
#include "control/check/finding.h"

#include <algorithm>

namespace control {

std::size_t countWarnings(const Findings& findings) {
    return static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [](const Finding& each) { return each.severity == Severity::warning; }));
}

std::size_t countErrors(const Findings& findings) {
    return findings.size() - countWarnings(findings);
}

std::string inQuotes(std::string_view text) {
    constexpr std::size_t longest = 80;
    std::string shown = "\"";
    shown += text.substr(0, longest);
    shown += text.size() > longest ? "...\"" : "\"";
    return shown;
}

} // namespace control
