// A share, as a URL names it; and the question which of some files it still has.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace confirming {

/// A directory of an rsync daemon's module, as the daemon names it in its complaints.
///
/// Some versions of rsync look in the module's root for what they are to send or to remove from a
/// directory. So the root is what is copied from, and the directory goes into each name.
struct Share {
    std::string root; // the URL of the module's root
    std::string module;
    std::string directory; // begins and ends with a slash; "/" for the module's root

    /// A name below the directory, given as rsync prints it, as an entry of a list for a call with
    /// `root`: a file that is sent or removed is still reported under its name alone.
    std::string entry(const std::string& name) const;

    /// The path that a complaint about this name quotes.
    std::string pathOf(const std::string& name) const { return directory + name; }
};

/// Reads rsync://[USER@]HOST[:PORT]/MODULE[/PATH] or [USER@]HOST::MODULE[/PATH]. Nothing for any
/// other source, and for a path with "..", whose name in a complaint is not known beforehand.
std::optional<Share> parseShare(std::string_view source);

/// What a stock rsync reads that is to copy, to remove or to list these names.
std::string listInput(const Share& share, const std::vector<std::string>& names);

/// The arguments for a stock rsync that lists those of the names on its standard input that the
/// source has. `access` are options that it needs to be let in. All waits on the network are
/// bounded.
std::vector<std::string> questionArguments(const std::vector<std::string>& access,
                                           const Share& share);

/// Hands on every name that a line of a listing, without its line feed, may mean: that of a
/// symbolic link goes on with " -> TARGET".
void forListedNames(std::string_view line, const std::function<void(std::string_view)>& take);

/// True if a stock rsync that ended with this status has gone through all names.
bool isAnswered(int exitStatus);

/// Those of the names, in their order, of which the share said that no such file exists and which
/// it did not list. A name is left out when in doubt: another complaint, another wording, a listing
/// line that could mean it.
std::vector<std::string> namesGone(const Share& share, const std::vector<std::string>& names,
                                   std::string_view output, std::string_view errorOutput);

} // namespace confirming
