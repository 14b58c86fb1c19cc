// Which records a subscriber gets, and with which one it begins.
#pragma once

#include "relay/record.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace relay {

/// What a record must be to be delivered. All that is given must be met; but a run has no path, and
/// one of several detectors is for the subscribers of each.
struct Filter {
    std::vector<std::string> detectors; // one of these; none given: any
    std::vector<std::string> paths;     // one of these shell patterns ("*" goes over "/", too)
    std::vector<Kind> kinds = {Kind::file, Kind::run};

    bool matches(const Record& record) const;

    bool operator==(const Filter& other) const {
        return detectors == other.detectors && paths == other.paths && kinds == other.kinds;
    }
};

/// The filter as a text, and back. No line feed may stand in it.
std::string filterText(const Filter& filter);
Filter parseFilterText(const std::string& text);

/// Where a subscriber that is new, or reset, begins.
struct Start {
    enum class Where { oldest, now, time, sequence };
    Where where = Where::oldest;
    std::int64_t value = 0; // a time in nanoseconds since 1970, or the first sequence number
};

/// A number, 0 or more, in decimal digits. Nothing if the text is none.
std::optional<std::int64_t> parseNumber(const std::string& digits);

/// Reads "oldest", "now", a time (see parseTime) or a sequence number. Nothing if it is none.
std::optional<Start> parseStart(const std::string& text);

/// Nanoseconds since 1970 of "2026-01-31T12:00:00Z", of the same with a blank and without the "Z"
/// (then it is the host's local time) or without the time of day, and of "90s", "10m", "2h" or
/// "3d", which is so long ago. Nothing if it is none of these.
std::optional<std::int64_t> parseTime(const std::string& text);

} // namespace relay
