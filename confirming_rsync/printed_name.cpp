// File names as rsync prints them, and back.
#include "confirming_rsync/printed_name.h"

#include <algorithm>
#include <cstddef>

namespace confirming {

namespace {

constexpr std::size_t escapeLength = 5;

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

bool isOctalDigit(char character) {
    return character >= '0' && character <= '7';
}

/// True where rsync escapes a backslash, so that what it prints can be read back.
bool looksLikeEscape(std::string_view text) {
    return text.size() >= escapeLength && text[0] == '\\' && text[1] == '#' && isDigit(text[2]) &&
           isDigit(text[3]) && isDigit(text[4]);
}

bool isEscape(std::string_view text) {
    return looksLikeEscape(text) && text[2] <= '3' && isOctalDigit(text[2]) &&
           isOctalDigit(text[3]) && isOctalDigit(text[4]);
}

void appendEscape(std::string& text, unsigned char byte) {
    text += "\\#";
    text += static_cast<char>('0' + (byte >> 6U));
    text += static_cast<char>('0' + ((byte >> 3U) & 7U));
    text += static_cast<char>('0' + (byte & 7U));
}

} // namespace

std::string printedName(std::string_view name) {
    const auto isOrdinary = [](char character) {
        return static_cast<unsigned char>(character) >= ' ' && character != '\\';
    };
    if (std::all_of(name.begin(), name.end(), isOrdinary)) {
        return std::string(name);
    }
    std::string printed;
    printed.reserve(name.size());
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
    if (text.size() > longest) {
        text.resize(longest);
    }
    return text;
}

std::string unprintedName(std::string_view printed) {
    std::string name;
    name.reserve(printed.size());
    for (std::size_t at = 0; at < printed.size(); ++at) {
        if (!isEscape(printed.substr(at))) {
            name += printed[at];
            continue;
        }
        const int byte =
            (printed[at + 2] - '0') * 64 + (printed[at + 3] - '0') * 8 + (printed[at + 4] - '0');
        name += static_cast<char>(byte);
        at += escapeLength - 1;
    }
    return name;
}

bool staysBelow(std::string_view name) {
    if (name.empty() || name.front() == '/') {
        return false;
    }
    while (!name.empty()) {
        const std::size_t end = name.find('/');
        if (name.substr(0, end) == "..") {
            return false;
        }
        name.remove_prefix(end == std::string_view::npos ? name.size() : end + 1);
    }
    return true;
}

} // namespace confirming
