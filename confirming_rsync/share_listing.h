// The listing of a share when earlier runs have left names open: stock rsync's, with a reminder.
#pragma once

#include "confirming_rsync/arguments.h"
#include "confirming_rsync/copy_run.h"

#include <string>
#include <string_view>
#include <vector>

namespace confirming {

/// Runs once: passes on what stock rsync prints, byte for byte, on both outputs. If rsync succeeds
/// and lists nothing that the daemon would copy, the reminder follows.
class ShareListing {
public:
    ShareListing(Places places, Arguments arguments, std::vector<std::string> environment);

    /// Returns the exit status for the program: stock rsync's own, or 127 if that can't be started.
    /// Does not return if a signal, or a reader that went away, ends the program.
    int run();

private:
    const Places places_;
    const Arguments arguments_;
    const std::vector<std::string> environment_;
};

/// True if the line of a listing, without its line feed, names something to copy: its fifth field
/// begins with another byte than ".".
bool namesSomething(std::string_view line);

} // namespace confirming
