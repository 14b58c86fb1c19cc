// Reading and appending whole texts.
#pragma once

#include "confirming_rsync/descriptors.h"

#include <string>
#include <string_view>

namespace confirming {

/// All that can be read from the descriptor from where it stands; nothing of it if reading fails.
std::string readText(const Descriptor& file);

/// The text of a file of any kind. Empty if it can't be opened or read.
std::string readTextFile(const std::string& path);

/// Writes the whole text. False, errno set, if the system does not take all of it.
bool writeText(const Descriptor& file, std::string_view text);

} // namespace confirming
