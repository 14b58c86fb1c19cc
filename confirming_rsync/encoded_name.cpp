// Any text as a name in a folder, which an operator can read, and back.
#include "confirming_rsync/encoded_name.h"

#include <cstddef>

namespace confirming {

namespace {

constexpr std::string_view digits = "0123456789ABCDEF";
constexpr std::string_view plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
                                   "._-:@";

} // namespace

std::string encodedName(std::string_view text) {
    const bool isDots = text == "." || text == "..";
    std::string name;
    for (const char character : text) {
        if (!isDots && plain.find(character) != std::string_view::npos) {
            name += character;
        } else {
            const auto byte = static_cast<unsigned char>(character);
            name += '%';
            name += digits[byte >> 4U];
            name += digits[byte & 15U];
        }
    }
    return name;
}

std::optional<std::string> decodedName(std::string_view name) {
    std::string text;
    for (std::size_t at = 0; at < name.size(); ++at) {
        if (name[at] != '%') {
            text += name[at];
            continue;
        }
        const std::string_view escape = name.substr(at, 3);
        const std::size_t high = escape.size() == 3 ? digits.find(escape[1]) : digits.npos;
        const std::size_t low = escape.size() == 3 ? digits.find(escape[2]) : digits.npos;
        if (high == digits.npos || low == digits.npos) {
            return std::nullopt;
        }
        text += static_cast<char>(high << 4U | low);
        at += 2;
    }
    // Whatever else could be read so is not what the text becomes.
    return encodedName(text) == name ? std::optional(text) : std::nullopt;
}

} // namespace confirming
