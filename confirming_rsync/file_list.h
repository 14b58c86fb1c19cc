// The list of names that stock rsync is told to copy.
#pragma once

#include "confirming_rsync/journal_text.h"

#include <string>
#include <string_view>
#include <vector>

namespace confirming {

/// The names of a list, in its order, as rsync prints them.
struct ListedNames {
    /// Those that name one thing below the source. Leading "./" and "/", which rsync drops, are
    /// dropped.
    std::vector<std::string> names;

    /// The others: with a part ".." or ".", or a slash at the end. Rsync takes some of them for
    /// everything in a folder, unfinished files included, and refuses a whole list because of
    /// others.
    std::vector<std::string> others;
};

/// Reads the text of a list: one name a line, or each ended by a NUL byte.
ListedNames listedNames(std::string_view text, bool endedByNul);

/// A list as it was found.
struct FileList {
    std::string text;
    FileIdentity identity;
    bool isForeign = false; // another user may have written it, or it is a link to something else
};

/// Reads a list. Empty if there is no such regular file, it can't be read, or it is foreign;
/// reading anything else (a pipe) would take the names away from rsync.
FileList readFileList(const std::string& path);

/// True while the very list stands where it stood, not written to since.
bool isStillThere(const FileIdentity& list);

} // namespace confirming
