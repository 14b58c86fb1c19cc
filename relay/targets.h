// Whose target a path lies below, as the daemon's configuration says.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace relay {

/// A path of the pipe in its two halves.
struct Located {
    std::string detector;    // empty if no configured target is the path's
    std::string_view target; // what the names below were sent to: up to and with a "/"
    std::string_view name;   // below it
    bool isCertain = true;   // false if the target was only guessed: it may be longer or shorter
};

/// The targets of the configured detectors.
class Targets {
public:
    /// Reads the daemon's configuration: that file, or where the daemon looks for it if it is
    /// empty. Without one, or with one that can't be read (that is told), no path has a detector.
    explicit Targets(const std::string& configurationFile);

    /// The halves are parts of `path`. If no target is configured for it, the first "/./", which
    /// the daemon sets behind a target, parts them; where there is none, the last "/" is a guess.
    Located locate(std::string_view path) const;

    /// Where in the line the path of a configured target begins again, behind its beginning; npos
    /// if it doesn't. That is what a line looks like whose writer died in the middle of it.
    std::size_t secondBeginning(std::string_view line) const;

private:
    struct Target {
        std::string detector;
        std::string beginning; // what the daemon writes in front of a name: "/data/1/./"
    };
    std::vector<Target> targets; // the longest first
};

} // namespace relay
