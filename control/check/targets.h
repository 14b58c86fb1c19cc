// Targets of several detectors that get in each other's way.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace control {

/// The folder that a target leads to for the daemon, whose directory is "/": without ".", ".." and
/// needless slashes. Looks at no file, and so knows of no link.
std::string targetFolder(const std::string& target);

/// Two folders, by their places in a list, of which one holds the other.
struct TargetOverlap {
    std::size_t outer = 0;
    std::size_t inner = 0; // when they are the same: the later one
    bool same = false;

    bool operator==(const TargetOverlap& other) const {
        return outer == other.outer && inner == other.inner && same == other.same;
    }
};

/// At most one overlap for each folder of the list: with the first that is the same, else with the
/// nearest that holds it. The root folder counts for the same, but holds none: it is a mistake of
/// its own.
std::vector<TargetOverlap> overlappingTargets(const std::vector<std::string>& folders);

/// What to say about it.
std::string sameTargetText(std::string_view one, std::string_view other, std::string_view folder);
std::string nestedTargetText(std::string_view outer, std::string_view inner,
                             std::string_view folder);
extern const char* const sameTargetAdvice;
extern const char* const nestedTargetAdvice;

} // namespace control
