// The listing of a share: stock rsync's, with a reminder if runs that are over have left names
// open.
#pragma once

#include "confirming_rsync/arguments.h"
#include "confirming_rsync/copy_run.h"

#include <string>
#include <vector>

namespace confirming {

/// Runs once: passes on what stock rsync prints, on both outputs, and settles what the runs that
/// are over have left. If there is something to announce or to say, the reminder follows.
class ShareListing {
public:
    ShareListing(Places places, Arguments arguments, std::vector<std::string> environment,
                 const Limits& limits);

    /// Returns the exit status for the program: stock rsync's own, or 127 if that can't be started.
    /// Does not return if a signal, or a reader that went away, ends the program.
    int run();

private:
    const Places places_;
    const Arguments arguments_;
    const std::vector<std::string> environment_;
    const Limits limits_;
};

} // namespace confirming
