// A snapshot as a plain report, for files, mails and terminals that can do no more.
#pragma once

#include "control/observe/snapshot.h"

#include <string>

namespace control {

/// The report, each line ended by a line feed. Names of unknown origin are made fit for a terminal;
/// `unicode` as for displayable().
std::string watchText(const Snapshot& snapshot, bool unicode);

} // namespace control
