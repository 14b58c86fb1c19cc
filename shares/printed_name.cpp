// File names as rsync prints them, and back.
#include "shares/printed_name.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <system_error>

namespace confirming {

namespace {

constexpr std::size_t escapeLength = 5;

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

/// True where rsync escapes a backslash, so that what it prints can be read back.
bool looksLikeEscape(std::string_view text) {
    return text.size() >= escapeLength && text[0] == '\\' && text[1] == '#' &&
           std::all_of(text.begin() + 2, text.begin() + escapeLength, isDigit);
}

/// The byte whose escape the text begins with.
std::optional<unsigned char> escapedByte(std::string_view text) {
    unsigned char byte = 0;
    if (looksLikeEscape(text)) {
        const char* const end = text.data() + escapeLength;
        const auto read = std::from_chars(text.data() + 2, end, byte, 8);
        if (read.ec == std::errc() && read.ptr == end) {
            return byte;
        }
    }
    return std::nullopt;
}

void appendEscape(std::string& text, unsigned char byte) {
    text += "\\#";
    text += static_cast<char>('0' + (byte >> 6U));
    text += static_cast<char>('0' + ((byte >> 3U) & 7U));
    text += static_cast<char>('0' + (byte & 7U));
}

} // namespace

std::string printedName(std::string_view name) {
    std::string printed;
    for (std::size_t at = 0; at < name.size(); ++at) {
        const auto byte = static_cast<unsigned char>(name[at]);
        if ((byte < ' ' && byte != '\t') || looksLikeEscape(name.substr(at))) {
            appendEscape(printed, byte);
        } else {
            printed += name[at];
        }
    }
    return printed;
}

std::string withoutControls(std::string_view line, std::size_t longest) {
    constexpr unsigned char first = 0x7f;
    constexpr unsigned char last = 0x9f;
    std::string text;
    for (const char character : line) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= first && byte <= last) {
            appendEscape(text, byte);
        } else {
            text += character;
        }
    }
    return text.substr(0, longest);
}

std::string unprintedName(std::string_view printed) {
    std::string name;
    while (!printed.empty()) {
        const auto escaped = escapedByte(printed);
        name += escaped ? static_cast<char>(*escaped) : printed.front();
        printed.remove_prefix(escaped ? escapeLength : 1);
    }
    return name;
}

bool staysBelow(std::string_view name) {
    const std::filesystem::path path(name);
    return !path.empty() && path.is_relative() &&
           std::find(path.begin(), path.end(), "..") == path.end();
}

} // namespace confirming
