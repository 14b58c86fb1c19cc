// A snapshot as JSON, for other programs.
#pragma once

#include "control/observe/snapshot.h"

#include <nlohmann/json_fwd.hpp>

namespace control {

/// All that a snapshot holds, under names of lower case letters and underscores. What is not known
/// is null. Bytes that are no UTF-8 stay in the texts: see jsonText.
nlohmann::json snapshotJson(const Snapshot& snapshot);

/// The same as text without a line feed at the end: in one line, or indented for people. Bytes that
/// are no UTF-8 become U+FFFD.
std::string snapshotJsonText(const Snapshot& snapshot, bool inOneLine);

} // namespace control
