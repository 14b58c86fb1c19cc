// Where the journals lie: one folder for each pair of share and destination.
#pragma once

#include "utilities/descriptors.h"

#include <map>
#include <string>

namespace confirming {

/// The path of the folder for the journals of one share and destination, below the folder `base`.
std::string journalFolder(const std::string& base, const std::string& source,
                          const std::string& destination);

/// Opens that folder. What is missing is created with mode 0700. Empty if it can't be had;
/// `failure` then says why. A folder that others than this user may write to is not used.
Descriptor openJournalFolder(const std::string& base, const std::string& source,
                             const std::string& destination, std::string& failure);

/// The folders that there are for a share, by their destination.
std::map<std::string, Descriptor> openJournalFolders(const std::string& base,
                                                     const std::string& source);

} // namespace confirming
