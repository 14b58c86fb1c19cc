// File names as rsync prints them, and back.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace confirming {

/// The name as rsync prints it with --8-bit-output: control characters but the tab, and a backslash
/// that would read as the start of such an escape, become \#ooo (octal); all other bytes stay.
std::string printedName(std::string_view name);

/// A line of rsync's, with the bytes that a terminal may take for control characters and that rsync
/// lets pass (0x7f to 0x9f) escaped likewise. Not for names. Cut off at `longest` bytes.
std::string withoutControls(std::string_view line, std::size_t longest);

/// The name that rsync printed: every \#ooo is taken back. The result may hold any byte.
std::string unprintedName(std::string_view printed);

/// True if the name, printed or not, means something below the directory that it is relative to:
/// it is not empty or absolute, and no part of it is "..".
bool staysBelow(std::string_view name);

} // namespace confirming
