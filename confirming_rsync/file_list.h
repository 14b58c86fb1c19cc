// The list of names that stock rsync is told to copy.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace confirming {

/// The names in a list's text as rsync will print them, in the list's order: one a line, or each
/// ended by a NUL byte. Leading "./" and "/" and trailing slashes, which rsync drops, are dropped.
std::vector<std::string> listedNames(std::string_view text, bool endedByNul);

/// The text of a list. Empty if there is no such regular file or it can't be read; reading anything
/// else (a pipe) would take the names away from rsync.
std::string readFileList(const std::string& path);

} // namespace confirming
