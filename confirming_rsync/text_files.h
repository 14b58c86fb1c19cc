// Reading whole texts.
#pragma once

#include "utilities/descriptors.h"

#include <optional>
#include <string>
#include <string_view>

namespace confirming {

/// Reads all that is there from where the descriptor stands. False, errno set, if reading fails.
bool readText(const Descriptor& file, std::string& text);

/// The text of a file of any kind. Nothing, errno set, if it can't be opened or read.
std::optional<std::string> readTextFile(const std::string& path);

} // namespace confirming
