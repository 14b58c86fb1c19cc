// What may be wrong with a configuration, or with the host that it is for, and where it is looked
// for.
#pragma once

#include "control/check/config_view.h"
#include "control/configuration.h"

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

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

/// What was found on the host.
struct HostFindings {
    Findings findings;

    /// Those that the targets of the detectors lead to, one for each, in their order; through links
    /// if they could be followed.
    std::vector<std::string> folders;
};

/// Looks at the places that the daemon will use: targets, password file, copy program, hand-off
/// pipe, log, /tmp, /var/run; for some seconds at most, since a file server may be dead. Changes
/// nothing, and opens nothing but the password file and the copy program, for reading. What only
/// root can tell is left out for others; one finding says so. `file` is the configuration file.
HostFindings findOnHost(const Configuration& configuration, const std::string& file);

/// Lists each share once, all at the same time, with the daemon's own command (but not through a
/// shell), and tells of those that can't be listed or do not answer within some seconds. Shares
/// that would mean something to a shell are left out.
Findings findInShares(const Configuration& configuration);

/// What rsync, run by root, would have against a password file of this kind and content.
Findings judgePasswordFile(const struct stat& status, std::string_view content);

/// What the daemon, or the system, would have against a copy program of this kind. `content` is
/// what the file holds, or as much as is known of it.
Findings judgeCopyProgram(const struct stat& status, std::string_view content);

/// What keeps the daemon from coming up with these start options on this host, as one sentence;
/// empty if nothing is found. Asks no detector.
std::string whatIsFatal(const std::vector<std::string>& startOptions);

/// Where the start options of the unit of systemd stand, and these.
constexpr const char* unitOptionsFile = "/etc/default/skarn";
std::vector<std::string> unitOptions();

/// The settings by their keys, in the order in which they are shown.
nlohmann::ordered_json settingsOf(const Configuration& configuration);

/// The folder that a target leads to for the daemon, whose directory is "/": without ".", ".." and
/// needless slashes. Looks at no file, and so knows of no link.
std::string targetFolder(const std::string& target);

/// The known key that is most like a word, if one is like it.
std::string nearestKey(std::string_view word);

/// True for a text that a shell takes as one word, just as it stands.
bool isPlainWord(std::string_view text);

/// A text as it is quoted in a sentence; the end of one beyond 80 bytes is cut off.
std::string inQuotes(std::string_view text);

} // namespace control
