// Text of unknown origin made fit for a terminal: no byte of it steers the terminal, and its width
// is known.
#include "control/display_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>

#include <wchar.h>

namespace control {

namespace {

struct Character {
    std::string_view bytes; // a single one where there is no UTF-8
    bool isUtf8 = false;
    char32_t code = 0;
};

/// Takes the first character off a text that is not empty.
Character takeCharacter(std::string_view& text) {
    const auto byteAt = [&text](std::size_t position) -> char32_t {
        return static_cast<unsigned char>(text[position]);
    };
    static constexpr std::array<char32_t, 5> least{0, 0, 0x80, 0x800, 0x10000}; // by length
    const char32_t first = byteAt(0);
    const std::size_t length = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    bool isUtf8 = length == 1 || (first >= 0xc0 && first < 0xf8 && length <= text.size());
    char32_t code = length == 1 ? first : first & (0x7fU >> length);
    for (std::size_t position = 1; isUtf8 && position < length; ++position) {
        isUtf8 = (byteAt(position) & 0xc0) == 0x80;
        code = code << 6 | (byteAt(position) & 0x3f);
    }
    isUtf8 = isUtf8 && code >= least.at(length) && code <= 0x10ffff && code >> 11 != 0x1b;
    const std::size_t bytes = isUtf8 ? length : 1;
    const Character taken{text.substr(0, bytes), isUtf8, code};
    text.remove_prefix(bytes);
    return taken;
}

/// Columns of one character on a terminal; 0 or less if it has none of its own.
int columnsOf(char32_t code) {
    if (code < 0x80) {
        return code >= 0x20 && code != 0x7f ? 1 : -1;
    }
    return wcwidth(static_cast<wchar_t>(code));
}

/// The columns that the next character of a displayable text takes, which is taken off.
int takeColumns(std::string_view& text) {
    const Character next = takeCharacter(text);
    return next.isUtf8 ? std::max(0, columnsOf(next.code)) : 1;
}

/// The longest beginning of the text that takes no more than that many columns.
std::string_view beginning(std::string_view text, int columns) {
    std::string_view rest = text;
    for (std::string_view next = text; columns >= 0; columns -= takeColumns(next)) {
        rest = next;
        if (next.empty()) {
            break;
        }
    }
    return text.substr(0, text.size() - rest.size());
}

/// The longest end of it.
std::string_view ending(std::string_view text, int columns) {
    for (int surplus = displayWidth(text) - columns; surplus > 0 && !text.empty();) {
        surplus -= takeColumns(text);
    }
    return text;
}

std::string decimal(double value, int digits) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", digits, value);
    return text.data();
}

} // namespace

std::string escaped(std::string_view text, bool (*isPlain)(char32_t code)) {
    std::string shown;
    while (!text.empty()) {
        const Character next = takeCharacter(text);
        if (next.isUtf8 && isPlain(next.code)) {
            shown += next.bytes;
            continue;
        }
        for (const char byte : next.bytes) {
            const auto digit = [byte](int shift) {
                return static_cast<char>('0' + (static_cast<unsigned char>(byte) >> shift & 7));
            };
            shown += {'\\', digit(6), digit(3), digit(0)};
        }
    }
    return shown;
}

std::string displayable(std::string_view text, bool unicode) {
    return escaped(
        text, unicode ? [](char32_t code) { return columnsOf(code) > 0; }
                      : [](char32_t code) { return code < 0x80 && columnsOf(code) > 0; });
}

int displayWidth(std::string_view text) {
    int columns = 0;
    while (!text.empty()) {
        columns += takeColumns(text);
    }
    return columns;
}

std::string cut(std::string_view text, int columns, bool unicode, bool inTheMiddle) {
    if (displayWidth(text) <= columns) {
        return std::string(text);
    }
    const std::string mark = unicode ? "…" : "..";
    const int left = columns - displayWidth(mark);
    if (left < 0) {
        return std::string(beginning(text, columns));
    }
    // What a name ends with (a running number, a suffix) tells more than what it begins with.
    const int front = inTheMiddle && left > 1 ? left / 2 : left;
    return std::string(beginning(text, front)) + mark + std::string(ending(text, left - front));
}

std::string joined(const std::vector<std::string>& texts, const char* separator) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : separator) + text;
    }
    return all;
}

std::string grouped(std::uint64_t number) {
    std::string digits = std::to_string(number);
    for (std::size_t end = digits.size(); end > 3; end -= 3) {
        digits.insert(end - 3, ",");
    }
    return digits;
}

std::string byteText(std::uint64_t bytes) {
    if (bytes < 1024) {
        return std::to_string(bytes) + " B";
    }
    double value = static_cast<double>(bytes) / 1024;
    const char* prefix = "KMGTPE";
    for (; value >= 1023.5; ++prefix) { // 2^64 bytes are 16 EiB
        value /= 1024;
    }
    return decimal(value, value < 99.95 ? 1 : 0) + " " + *prefix + "iB";
}

std::string durationText(double seconds) {
    // Far beyond anything that is waited for; also what a division by almost nothing gives.
    if (!(seconds < 1e9)) {
        return "more than 30 years";
    }
    const auto whole = static_cast<std::uint64_t>(std::max(0.0, seconds));
    const std::uint64_t hours = whole / 3600;
    return whole < 60   ? std::to_string(whole) + " s"
           : hours < 1  ? std::to_string(whole / 60) + " min"
           : hours < 24 ? std::to_string(hours) + " h " + std::to_string(whole / 60 % 60) + " min"
                        : grouped(hours / 24) + " d " + std::to_string(hours % 24) + " h";
}

std::string localTime(double secondsSince1970, const char* format) {
    const auto time = static_cast<std::time_t>(secondsSince1970);
    std::tm parts = {};
    std::array<char, 64> text{};
    if (localtime_r(&time, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), format, &parts) == 0) {
        return "an unknown time";
    }
    return text.data();
}

std::string rateText(double perSecond) {
    if (!(perSecond > 0)) {
        return "0";
    }
    return perSecond < 9.95
               ? decimal(std::max(0.1, perSecond), 1)
               : grouped(static_cast<std::uint64_t>(std::llround(std::min(perSecond, 1e15))));
}

} // namespace control
