// The list of names that stock rsync is told to copy.
#pragma once

#include "shares/journal_text.h"

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

    /// Among them was the reminder of names that earlier runs have left.
    bool hasReminder = false;
};

/// Reads the text of a list: one name a line, or each ended by a NUL byte.
ListedNames listedNames(std::string_view text, bool endedByNul);

/// A list as it was found.
struct FileList {
    std::string text;
    FileIdentity identity;
    std::string failure; // why it can't be used; empty if it can
};

/// Reads a list. Only a regular file that nobody but this user and root can have written, and that
/// is nowhere else under another name, is used: the daemon names its lists foreseeably, below /tmp.
FileList readFileList(const std::string& path);

/// True while the very list stands where it stood, not written to since.
bool isStillThere(const FileIdentity& list);

} // namespace confirming
