// From the lines of a share's listing to the transfer list.
#pragma once

#include "transfer/name_list.h"

#include <string_view>

/// Reads a listing line by line (permissions, size, date, time, path) and keeps the names to
/// transfer, in listing order: entries whose path begins with "." are dropped, and a directory is
/// dropped when an entry below it follows. A path is cut at its first white space, so that the line
/// of a symbolic link gives the link's name. Any bytes may come: a line with fewer than five fields
/// is skipped.
class ListingParser {
public:
    /// Takes one line, or a piece of a longer one, with or without its line feed.
    void addLine(std::string_view line);

    /// Hands the transfer list over and starts a new listing.
    NameList takeNames();

private:
    NameList transferList;
};

/// Reads a listing from the descriptor to its end and returns the transfer list.
NameList readListing(int descriptor);
