// Whose target a path lies below, as the daemon's configuration says.
#include "relay/targets.h"

#include "control/configuration.h"
#include "relay/messages.h"

#include <algorithm>
#include <cstddef>
#include <optional>

namespace relay {

Targets::Targets(const std::string& configurationFile) {
    const std::optional<std::string> file =
        configurationFile.empty() ? control::findConfigFile() : std::optional(configurationFile);
    if (!file) {
        inform("there is no configuration of the daemon: records will name no detector");
        return;
    }
    const control::LoadedConfiguration loaded = control::loadConfiguration(*file, {});
    if (!loaded.configuration) {
        warn(loaded.problem + ": records will name no detector");
        return;
    }
    for (const control::Detector& each : loaded.configuration->detectors) {
        targets.push_back({each.id, each.destination()});
    }
    std::sort(targets.begin(), targets.end(), [](const Target& one, const Target& other) {
        return one.beginning.size() > other.beginning.size();
    });
}

Located Targets::locate(std::string_view path) const {
    std::size_t end = 0; // of the target
    std::string detector;
    bool isCertain = true;
    const auto found = std::find_if(targets.begin(), targets.end(), [path](const Target& each) {
        return path.substr(0, each.beginning.size()) == each.beginning;
    });
    if (found != targets.end()) {
        end = found->beginning.size();
        detector = found->detector;
    } else if (const std::size_t dot = path.find("/./"); dot != std::string_view::npos) {
        end = dot + 3;
    } else {
        end = path.rfind('/') + 1; // 0 if there is none
        isCertain = false;
    }
    return {std::move(detector), path.substr(0, end), path.substr(end), isCertain};
}

std::size_t Targets::secondBeginning(std::string_view line) const {
    std::size_t last = std::string_view::npos;
    for (const Target& each : targets) {
        const std::size_t place = line.rfind(each.beginning);
        if (place != std::string_view::npos && place > 0 &&
            (last == std::string_view::npos || place > last)) {
            last = place;
        }
    }
    return last;
}

} // namespace relay
