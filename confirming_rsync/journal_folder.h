// Where the journals lie: one folder for each pair of share and destination.
#pragma once

#include "confirming_rsync/descriptors.h"

#include <string>
#include <vector>

namespace confirming {

/// The folder for the journals of one share and destination, below the folder `base`. What is
/// missing is created, both with mode 0700. Empty if it can't be had; `failure` then says why. A
/// folder that others than this user may write to is not used.
Descriptor openJournalFolder(const std::string& base, const std::string& source,
                             const std::string& destination, std::string& failure);

/// The folders that there are for a share, whatever the destination.
std::vector<Descriptor> openJournalFolders(const std::string& base, const std::string& source);

/// The names of what is in a folder, in no order, but "." and "..".
std::vector<std::string> namesIn(const Descriptor& folder);

} // namespace confirming
