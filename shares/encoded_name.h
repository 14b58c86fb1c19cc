// Any text as a name in a folder, which an operator can read, and back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace confirming {

/// The text with every byte but letters, digits and ._-:@ as %XX (capitals). Two texts never become
/// the same name, and none becomes "." or "..". How long it may be is for the caller to see to; an
/// empty text becomes an empty name, which no folder can hold.
std::string encodedName(std::string_view text);

/// The text that became this name. Nothing if none does.
std::optional<std::string> decodedName(std::string_view name);

} // namespace confirming
