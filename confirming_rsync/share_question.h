// The question to a share which of some files it still has: how it is put, and how the answer
/// reads.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace confirming {

/// A directory of an rsync daemon's module, as the daemon names it in its complaints.
struct Share {
    std::string module;
    std::string directory; // begins and ends with a slash; "/" for the module's root

    /// The path that a complaint about this name quotes.
    std::string pathOf(const std::string& name) const { return directory + name; }
};

/// Reads rsync://[USER@]HOST[:PORT]/MODULE[/PATH] or [USER@]HOST::MODULE[/PATH]. Nothing for any
/// other source, and for a path with "..", whose name in a complaint is not known beforehand.
std::optional<Share> parseShare(std::string_view source);

/// The arguments for a stock rsync that lists those of the names on its standard input that the
/// source has. `access` are options that it needs to be let in. All waits on the network are
/// bounded.
std::vector<std::string> questionArguments(const std::vector<std::string>& access,
                                           const std::string& source);

/// What that rsync reads: the names, given as rsync prints them.
std::string questionInput(const std::vector<std::string>& names);

/// True if a stock rsync that ended with this status has gone through all names.
bool isAnswered(int exitStatus);

/// Those of the names, in their order, of which the share said that no such file exists and which
/// it did not list. A name is left out when in doubt: another complaint, another wording, a listing
/// line that could mean it.
std::vector<std::string> namesGone(const Share& share, const std::vector<std::string>& names,
                                   std::string_view output, std::string_view errorOutput);

} // namespace confirming
