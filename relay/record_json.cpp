// Records as JSON, one on a line: the form is documented in docs/relay-record.schema.json.
#include "relay/record_json.h"

#include <array>
#include <cstddef>

namespace relay {

namespace {

constexpr std::string_view digits = "0123456789ABCDEF";
constexpr std::int64_t billion = 1000000000;

unsigned byteAt(std::string_view bytes, std::size_t place) {
    return place < bytes.size() ? static_cast<unsigned char>(bytes[place]) : 0U;
}

/// How many bytes the character at this place has; 0 if it is none.
std::size_t characterSize(std::string_view bytes, std::size_t at) {
    const unsigned first = byteAt(bytes, at);
    if (first < 0x80U) {
        return 1;
    }
    std::size_t size = 0;
    unsigned code = 0;
    unsigned smallest = 0;
    if ((first & 0xe0U) == 0xc0U) {
        size = 2, code = first & 0x1fU, smallest = 0x80U;
    } else if ((first & 0xf0U) == 0xe0U) {
        size = 3, code = first & 0x0fU, smallest = 0x800U;
    } else if ((first & 0xf8U) == 0xf0U) {
        size = 4, code = first & 0x07U, smallest = 0x10000U;
    } else {
        return 0;
    }
    for (std::size_t next = 1; next < size; ++next) {
        const unsigned byte = byteAt(bytes, at + next);
        if ((byte & 0xc0U) != 0x80U) {
            return 0;
        }
        code = (code << 6U) | (byte & 0x3fU);
    }
    const bool isSurrogate = code >= 0xd800U && code <= 0xdfffU;
    return code < smallest || code > 0x10ffffU || isSurrogate ? 0 : size;
}

void appendString(std::string_view string, std::string& text) {
    text += '"';
    for (const char each : string) {
        const auto byte = static_cast<unsigned char>(each);
        if (each == '"' || each == '\\') {
            text += '\\';
            text += each;
        } else if (byte < 0x20U || byte == 0x7fU) {
            text += "\\u00";
            text += digits[byte >> 4U];
            text += digits[byte & 15U];
        } else {
            text += each;
        }
    }
    text += '"';
}

} // namespace

bool isUtf8(std::string_view bytes) {
    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::size_t size = characterSize(bytes, at);
        if (size == 0) {
            return false;
        }
        at += size;
    }
    return true;
}

std::string percentEncoded(std::string_view bytes) {
    constexpr std::string_view plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-~";
    std::string text;
    for (const char each : bytes) {
        if (plain.find(each) != std::string_view::npos) {
            text += each;
        } else {
            const auto byte = static_cast<unsigned char>(each);
            text += '%';
            text += digits[byte >> 4U];
            text += digits[byte & 15U];
        }
    }
    return text;
}

std::string jsonString(std::string_view text) {
    std::string string;
    appendString(text, string);
    return string;
}

std::string secondsText(std::int64_t nanoseconds) {
    // Before 1970 the seconds are rounded down, and the fraction is still added.
    std::int64_t seconds = nanoseconds / billion;
    std::int64_t fraction = nanoseconds % billion;
    if (fraction < 0) {
        --seconds;
        fraction += billion;
    }
    const std::string decimals = std::to_string(fraction);
    return std::to_string(seconds) + "." + std::string(9 - decimals.size(), '0') + decimals;
}

void appendJson(const Record& record, std::string& text) {
    text += "{\"version\":1,\"seq\":" + std::to_string(record.sequence) + ",\"kind\":\"";
    text += nameOf(record.kind);
    const bool isFile = record.kind == Kind::file;
    text += isFile ? "\",\"path" : "\",\"line";
    if (isUtf8(record.path)) {
        text += "\":";
        appendString(record.path, text);
    } else {
        text += "_percent\":\"" + percentEncoded(record.path) + '"';
    }
    if (isFile) {
        text += ",\"detector\":";
        if (record.detector.empty() || !isUtf8(record.detector)) {
            text += "null";
        } else {
            appendString(record.detector, text);
        }
        text += ",\"type\":\"";
        text += nameOf(record.type);
        text += '"';
        if (record.identity) {
            text += ",\"size\":" + std::to_string(record.identity->size) + ",\"mtime\":\"" +
                    secondsText(record.identity->mtime) +
                    "\",\"inode\":" + std::to_string(record.identity->inode);
        }
        if (record.way != Way::unknown) {
            text += record.way == Way::linkFree ? ",\"link_free\":true" : ",\"link_free\":false";
        }
    }
    text += ",\"arrival\":\"" + secondsText(record.arrival) +
            "\",\"repeats\":" + std::to_string(record.repeats) + "}";
}

} // namespace relay
