// Any text as a name in a folder, which an operator can read, and back.
#include "shares/encoded_name.h"

#include <charconv>
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
        auto byte = static_cast<unsigned char>(name[at]);
        if (name[at] == '%') {
            const std::string_view escape = name.substr(at + 1, 2);
            std::from_chars(escape.data(), escape.data() + escape.size(), byte, 16);
            at += escape.size();
        }
        text += static_cast<char>(byte);
    }
    // Whatever else could be read so is not what the text becomes.
    return encodedName(text) == name ? std::optional(text) : std::nullopt;
}

} // namespace confirming
