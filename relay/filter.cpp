// Which records a subscriber gets, and with which one it begins.
#include "relay/filter.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <sstream>

#include <fnmatch.h>

namespace relay {

namespace {

std::optional<std::int64_t> parseAge(const std::string& text) {
    if (text.size() < 2) {
        return std::nullopt;
    }
    std::int64_t unit = 0;
    switch (text.back()) {
    case 's':
        unit = 1;
        break;
    case 'm':
        unit = 60;
        break;
    case 'h':
        unit = 3600;
        break;
    case 'd':
        unit = 86400;
        break;
    default:
        return std::nullopt;
    }
    const auto number = parseNumber(text.substr(0, text.size() - 1));
    constexpr std::int64_t longest = 36500; // days
    if (!number || *number > longest * 86400 / unit) {
        return std::nullopt;
    }
    return now() - *number * unit * billion;
}

std::optional<std::int64_t> parseDate(const std::string& text, const char* format, bool isUtc) {
    tm parts{};
    const char* const end = strptime(text.c_str(), format, &parts);
    if (end == nullptr || *end != '\0') {
        return std::nullopt;
    }
    parts.tm_isdst = -1;
    const std::int64_t seconds = isUtc ? timegm(&parts) : mktime(&parts);
    constexpr std::int64_t latest = 9000000000; // what nanoseconds can be counted up to, about
    return seconds >= 0 && seconds < latest ? std::optional(seconds * billion) : std::nullopt;
}

} // namespace

bool Filter::matches(const Record& record) const {
    const auto among = [](const auto& wanted, const auto& value) {
        return std::find(wanted.begin(), wanted.end(), value) != wanted.end();
    };
    if (!among(kinds, record.kind)) {
        return false;
    }
    const bool isRun = record.kind == Kind::run;
    const bool isOfMany = isRun && record.detector.empty();
    if (!detectors.empty() && !isOfMany && !among(detectors, record.detector)) {
        return false;
    }
    return isRun || paths.empty() ||
           std::any_of(paths.begin(), paths.end(), [&record](const std::string& pattern) {
               return fnmatch(pattern.c_str(), record.path.c_str(), 0) == 0;
           });
}

std::string filterText(const Filter& filter) {
    std::string text;
    for (const std::string& each : filter.detectors) {
        text += "detector " + each + '\n';
    }
    for (const std::string& each : filter.paths) {
        text += "path " + each + '\n';
    }
    for (const Kind each : filter.kinds) {
        text += "kind " + std::string(nameOf(each)) + '\n';
    }
    return text;
}

Filter parseFilterText(const std::string& text) {
    Filter filter;
    filter.kinds.clear();
    std::istringstream words(text);
    std::string key;
    std::string value;
    while (std::getline(words, key, ' ') && std::getline(words, value)) {
        if (key == "detector") {
            filter.detectors.push_back(value);
        } else if (key == "path") {
            filter.paths.push_back(value);
        } else if (const auto kind = kindNamed(value)) {
            filter.kinds.push_back(*kind);
        }
    }
    return filter;
}

std::optional<std::int64_t> parseNumber(const std::string& digits) {
    std::int64_t value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [behind, error] = std::from_chars(digits.data(), end, value);
    return error == std::errc() && behind == end && value >= 0 ? std::optional(value)
                                                               : std::nullopt;
}

std::optional<std::int64_t> parseTime(const std::string& text) {
    if (const auto age = parseAge(text)) {
        return age;
    }
    if (const auto utc = parseDate(text, "%Y-%m-%dT%H:%M:%SZ", true)) {
        return utc;
    }
    for (const char* const format :
         {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        if (const auto local = parseDate(text, format, false)) {
            return local;
        }
    }
    return std::nullopt;
}

std::optional<Start> parseStart(const std::string& text) {
    if (text == "oldest") {
        return Start{Start::Where::oldest, 0};
    }
    if (text == "now") {
        return Start{Start::Where::now, 0};
    }
    if (const auto number = parseNumber(text)) {
        return Start{Start::Where::sequence, *number};
    }
    if (const auto time = parseTime(text)) {
        return Start{Start::Where::time, *time};
    }
    return std::nullopt;
}

} // namespace relay
