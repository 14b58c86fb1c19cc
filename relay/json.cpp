// What is told in JSON, one object on a line: of records, docs/relay-record.schema.json has the
// form.
#include "relay/json.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace relay {

namespace {

void addFile(Json& object, const Record& record) {
    const bool isNamed = !record.detector.empty() && isUtf8(record.detector);
    object["detector"] = isNamed ? Json(record.detector) : Json(nullptr);
    object["type"] = nameOf(record.type);
    if (record.identity) {
        object["size"] = record.identity->size;
        object["mtime"] = secondsText(record.identity->mtime);
        object["inode"] = record.identity->inode;
    }
    if (record.way != Way::unknown) {
        object["link_free"] = record.way == Way::linkFree;
    }
}

} // namespace

void addBytes(Json& object, const std::string& key, const std::string& bytes) {
    if (isUtf8(bytes)) {
        object[key] = bytes;
    } else {
        object[key + "_percent"] = percentEncoded(bytes);
    }
}

void appendJson(const Record& record, std::string& text) {
    const bool isFile = record.kind == Kind::file;
    Json object = {{"version", 1}, {"seq", record.sequence}, {"kind", nameOf(record.kind)}};
    addBytes(object, isFile ? "path" : "line", record.path);
    if (isFile) {
        addFile(object, record);
    }
    object["arrival"] = secondsText(record.arrival);
    object["repeats"] = record.repeats;
    text += jsonText(object);
}

Json jsonOf(const DeadLetter& letter) {
    Json object = {{"seq", letter.sequence}};
    addBytes(object, "path", letter.path);
    object["attempts"] = letter.attempts;
    object["since"] = secondsText(letter.since);
    object["reason"] = letter.reason;
    return object;
}

std::string jsonText(const Json& object) {
    std::string text = object.dump(-1, ' ', false, Json::error_handler_t::replace);
    for (std::size_t at = text.find('\x7f'); at != std::string::npos; at = text.find('\x7f', at)) {
        text.replace(at, 1, "\\u007f");
    }
    return text;
}

bool isUtf8(std::string_view bytes) {
    const auto isPlain = [](char each) { return static_cast<signed char>(each) >= 0; };
    if (std::all_of(bytes.begin(), bytes.end(), isPlain)) {
        return true;
    }
    try {
        return !Json(bytes).dump().empty(); // the library refuses what is none
    } catch (const Json::type_error&) {
        return false;
    }
}

std::string percentEncoded(std::string_view bytes) {
    constexpr std::string_view plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-~";
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (const char each : bytes) {
        if (plain.find(each) != std::string_view::npos) {
            text += each;
        } else {
            const auto byte = static_cast<unsigned char>(each);
            text += {'%', digits[byte >> 4U], digits[byte & 15U]};
        }
    }
    return text;
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

} // namespace relay
