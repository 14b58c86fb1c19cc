// Reading and appending whole texts.
#pragma once

#include "confirming_rsync/descriptors.h"

#include <optional>
#include <string>
#include <string_view>

namespace confirming {

/// Reads all that is there from where the descriptor stands. False, errno set, if reading fails.
bool readText(const Descriptor& file, std::string& text);

/// The text of a file of any kind. Nothing, errno set, if it can't be opened or read.
std::optional<std::string> readTextFile(const std::string& path);

/// Writes the whole text. False, errno set, if the system does not take all of it.
bool writeText(const Descriptor& file, std::string_view text);

} // namespace confirming
