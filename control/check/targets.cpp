// Targets of several detectors that get in each other's way.
#include "control/check/targets.h"

#include "control/check/finding.h"

#include <algorithm>
#include <filesystem>
#include <map>

namespace control {

namespace fs = std::filesystem;

const char* const sameTargetAdvice = "give each detector a target of its own";
const char* const nestedTargetAdvice = "use targets that lie beside each other";

std::string targetFolder(const std::string& target) {
    // Two slashes in front may mean something of their own to others.
    const std::string relative =
        target.substr(std::min(target.find_first_not_of('/'), target.size()));
    const fs::path folder = fs::path("/" + relative).lexically_normal();
    return (folder.has_filename() ? folder : folder.parent_path()).string();
}

std::vector<TargetOverlap> overlappingTargets(const std::vector<std::string>& folders) {
    std::map<std::string, std::size_t> first;
    std::vector<TargetOverlap> overlaps;
    std::vector<bool> isAgain(folders.size());
    for (std::size_t i = 0; i < folders.size(); ++i) {
        const auto [known, isNew] = first.try_emplace(folders[i], i);
        if (!isNew) {
            isAgain[i] = true;
            overlaps.push_back({known->second, i, true});
        }
    }
    for (std::size_t i = 0; i < folders.size(); ++i) {
        if (isAgain[i]) {
            continue;
        }
        std::string above = folders[i];
        for (std::size_t slash = above.rfind('/'); slash != std::string::npos && slash > 0;
             slash = above.rfind('/')) {
            above.resize(slash);
            const auto outer = first.find(above);
            if (outer != first.end()) {
                overlaps.push_back({outer->second, i, false});
                break;
            }
        }
    }
    return overlaps;
}

std::string sameTargetText(std::string_view one, std::string_view other, std::string_view folder) {
    return "detectors " + inQuotes(one) + " and " + inQuotes(other) + " have one target, " +
           inQuotes(folder) + ": files of the same name overwrite each other";
}

std::string nestedTargetText(std::string_view outer, std::string_view inner,
                             std::string_view folder) {
    return "the target of detector " + inQuotes(inner) + ", " + inQuotes(folder) +
           ", lies inside that of detector " + inQuotes(outer);
}

} // namespace control
