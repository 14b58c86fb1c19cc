// What the fuzzers share: the claim that must hold, and the input in the forms in which the
// programs meet it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

/// Ends the program, which the fuzzer takes for a finding, unless `holds`. `claim` says what should
/// have held.
inline void require(bool holds, const char* claim) {
    if (!holds) {
        std::fprintf(stderr, "Not true: %s\n", claim);
        std::abort();
    }
}

inline std::string text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// The lines of `text`; what follows the last separator is a line too, unless it is empty.
inline std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> parts;
    while (!text.empty()) {
        const std::size_t end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return parts;
}

/// The bytes as the daemon reads what a child prints: with fgets and a buffer of 1,024 bytes. What
/// a NUL byte hides from the reader is missing here too.
inline std::vector<std::string> readPieces(const std::string& bytes) {
    std::vector<std::string> pieces;
    if (bytes.empty()) {
        return pieces;
    }
    FILE* const stream = fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "rb");
    require(stream != nullptr, "memory can be read as a stream");
    char piece[1024];
    while (fgets(piece, sizeof piece, stream) != nullptr) {
        pieces.emplace_back(piece);
    }
    std::fclose(stream);
    return pieces;
}

inline bool isSpace(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

inline bool hasSpace(std::string_view text) {
    for (const char character : text) {
        if (isSpace(character)) {
            return true;
        }
    }
    return false;
}

} // namespace fuzz
