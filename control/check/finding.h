// One thing that is wrong with a configuration or with the host that it is for.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace control {

/// What the daemon would do about it is told by the finding; this says how bad that is.
enum class Severity {
    warning, // the daemon works, but perhaps not as meant
    error,   // the daemon certainly does something else than what was meant
    fatal,   // the daemon does not come up; told as an error
};

struct Finding {
    Severity severity = Severity::error;
    std::string code;    // what kind it is: short, fixed, for programs ("not-taken")
    int line = 0;        // of the configuration file, from 1; 0 if it is not about one line
    std::string subject; // the key, detector, option or path that it is about; any bytes
    std::string text;    // one sentence: what is there, and what the daemon makes of it; any bytes
    std::string advice;  // what to do
    enum class About { configuration, startOptions, host } about = About::configuration;
};

using Findings = std::vector<Finding>;

/// How many of them are warnings, or are not.
std::size_t countWarnings(const Findings& findings);
std::size_t countErrors(const Findings& findings);

/// A text as it is quoted in a sentence; the end of one beyond 80 bytes is cut off.
std::string inQuotes(std::string_view text);

} // namespace control
