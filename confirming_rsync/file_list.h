// The list of names that stock rsync is told to copy.
#pragma once

#include "confirming_rsync/journal_text.h"

#include <string>
#include <string_view>
#include <vector>

namespace confirming {

/// The names in a list's text as rsync will print them, in the list's order: one a line, or each
/// ended by a NUL byte. Leading "./" and "/" and trailing slashes, which rsync drops, are dropped.
std::vector<std::string> listedNames(std::string_view text, bool endedByNul);

/// A list as it was found.
struct FileList {
    std::string text;
    FileIdentity identity;
};

/// Reads a list. Empty if there is no such regular file or it can't be read; reading anything else
/// (a pipe) would take the names away from rsync.
FileList readFileList(const std::string& path);

/// True while the very list stands where it stood, not written to since.
bool isStillThere(const FileIdentity& list);

} // namespace confirming
