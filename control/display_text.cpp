// Text of unknown origin made fit for a terminal: no byte of it steers the terminal, and its width
// is known.
#include "control/display_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <vector>

#include <wchar.h>

namespace control {

namespace {

unsigned char byteAt(std::string_view text, std::size_t position) {
    return static_cast<unsigned char>(text[position]);
}

/// Columns of one character on a terminal; 0 or less if it has none of its own.
int columnsOf(char32_t code) {
    if (code < 0x80) {
        return code >= 0x20 && code != 0x7f ? 1 : -1;
    }
    return wcwidth(static_cast<wchar_t>(code));
}

void appendOctal(std::string& text, unsigned char byte) {
    std::array<char, 5> octal{};
    std::snprintf(octal.data(), octal.size(), "\\%03o", static_cast<unsigned>(byte));
    text += octal.data();
}

/// The longest beginning of the text that takes no more than that many columns.
std::string_view beginning(std::string_view text, int columns) {
    std::size_t end = 0;
    while (end < text.size()) {
        const Character next = firstCharacter(text.substr(end));
        columns -= next.bytes == 0 ? 1 : std::max(0, columnsOf(next.code));
        if (columns < 0) {
            break;
        }
        end += std::max<std::size_t>(1, next.bytes);
    }
    return text.substr(0, end);
}

/// The longest end of it.
std::string_view ending(std::string_view text, int columns) {
    int surplus = displayWidth(text) - columns;
    while (surplus > 0 && !text.empty()) {
        const Character next = firstCharacter(text);
        surplus -= next.bytes == 0 ? 1 : std::max(0, columnsOf(next.code));
        text.remove_prefix(std::max<std::size_t>(1, next.bytes));
    }
    return text;
}

std::string_view ellipsis(bool unicode) {
    return unicode ? "…" : "..";
}

std::string oneDecimal(double value, const char* unit) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), value < 99.95 ? "%.1f %s" : "%.0f %s", value, unit);
    return text.data();
}

} // namespace

Character firstCharacter(std::string_view text) {
    const unsigned char first = byteAt(text, 0);
    if (first < 0x80) {
        return {first, 1};
    }
    struct Form {
        unsigned char mask;
        unsigned char mark;
        std::size_t bytes;
        char32_t least;
    };
    static constexpr std::array<Form, 3> forms{
        {{0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}}};
    for (const Form& form : forms) {
        if ((first & form.mask) != form.mark) {
            continue;
        }
        if (text.size() < form.bytes) {
            return {};
        }
        char32_t code = first & static_cast<unsigned char>(~form.mask);
        for (std::size_t position = 1; position < form.bytes; ++position) {
            const unsigned char byte = byteAt(text, position);
            if ((byte & 0xc0) != 0x80) {
                return {};
            }
            code = (code << 6) | (byte & 0x3fU);
        }
        const bool surrogate = code >= 0xd800 && code <= 0xdfff;
        if (code < form.least || surrogate || code > 0x10ffff) {
            return {};
        }
        return {code, form.bytes};
    }
    return {};
}

std::string displayable(std::string_view text, bool unicode) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const Character next = firstCharacter(text);
        const std::size_t bytes = std::max<std::size_t>(1, next.bytes);
        const bool known = next.bytes == 1 || (unicode && next.bytes > 1);
        if (known && columnsOf(next.code) > 0) {
            shown += text.substr(0, bytes);
        } else {
            for (std::size_t position = 0; position < bytes; ++position) {
                appendOctal(shown, byteAt(text, position));
            }
        }
        text.remove_prefix(bytes);
    }
    return shown;
}

int displayWidth(std::string_view text) {
    int columns = 0;
    while (!text.empty()) {
        const Character next = firstCharacter(text);
        columns += next.bytes == 0 ? 1 : std::max(0, columnsOf(next.code));
        text.remove_prefix(std::max<std::size_t>(1, next.bytes));
    }
    return columns;
}

std::string cutEnd(std::string_view text, int columns, bool unicode) {
    if (displayWidth(text) <= columns) {
        return std::string(text);
    }
    const std::string_view mark = ellipsis(unicode);
    const int left = columns - displayWidth(mark);
    if (left < 0) {
        return std::string(beginning(text, std::max(0, columns)));
    }
    return std::string(beginning(text, left)).append(mark);
}

std::string cutMiddle(std::string_view text, int columns, bool unicode) {
    if (displayWidth(text) <= columns) {
        return std::string(text);
    }
    const std::string_view mark = ellipsis(unicode);
    const int left = columns - displayWidth(mark);
    if (left < 2) {
        return cutEnd(text, columns, unicode);
    }
    // What a name ends with (a running number, a suffix) tells more than what it begins with.
    const int front = left / 2;
    return std::string(beginning(text, front)).append(mark).append(ending(text, left - front));
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
    static constexpr std::array<const char*, 6> units{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    while (value >= 1023.5 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    return oneDecimal(value, units[unit]);
}

std::string durationText(double seconds) {
    // Far beyond anything that is waited for; also what a division by almost nothing gives.
    if (!(seconds < 1e9)) {
        return "more than 30 years";
    }
    const auto whole = static_cast<std::uint64_t>(std::max(0.0, seconds));
    const std::uint64_t minutes = whole / 60;
    const std::uint64_t hours = minutes / 60;
    const std::uint64_t days = hours / 24;
    if (whole < 60) {
        return std::to_string(whole) + " s";
    }
    if (hours == 0) {
        return std::to_string(minutes) + " min";
    }
    if (days == 0) {
        return std::to_string(hours) + " h " + std::to_string(minutes % 60) + " min";
    }
    return grouped(days) + " d " + std::to_string(hours % 24) + " h";
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
    if (perSecond < 9.95) {
        std::array<char, 32> text{};
        std::snprintf(text.data(), text.size(), "%.1f", std::max(0.1, perSecond));
        return text.data();
    }
    return grouped(static_cast<std::uint64_t>(std::llround(std::min(perSecond, 1e15))));
}

} // namespace control
