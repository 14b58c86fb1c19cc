// The files of names that runs which are over have left: what waits to be announced.
#pragma once

#include "shares/journal_text.h"
#include "utilities/descriptors.h"

#include <optional>
#include <string>

namespace confirming {

// They lie in the folder of a share and destination, beside its journals. Whoever reads one to
// change it holds the folder meanwhile.

/// What is to be announced by the next copy.
constexpr const char* leftName = "left";
/// What was, under a destination that is the daemon's no more.
constexpr const char* asideName = "unannounced";

/// Takes hold of a file or folder for as long as the descriptor stays open. False if someone else
/// has it, or it is gone from its place by now.
bool hold(const Descriptor& file);

/// True if opening a file failed with this errno because it is none of this program's.
bool isForeign(int error);

/// What such a file says; nothing is left if it is not there. Nothing is returned if the system
/// does not tell, or if the file is damaged.
std::optional<LeftNames> readLeft(const Descriptor& folder, const char* name, bool& isDamaged);

/// Puts it in place, durable; or takes the file away, if there is nothing to say. False if that
/// fails: then all is as it was.
bool writeLeft(const Descriptor& folder, const char* name, const LeftNames& left);

} // namespace confirming
