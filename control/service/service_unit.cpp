// Which unit of systemd a process belongs to.
#include "control/service/service_unit.h"

#include "control/process.h"
#include "daemon/global.h"

#include <algorithm>

#include <unistd.h>

namespace control {

std::string serviceIn(std::string_view cgroups) {
    constexpr std::string_view ending = ".service";
    while (!cgroups.empty()) {
        // NUMBER:CONTROLLERS:PATH; systemd's own hierarchy has number 0 or the name "systemd".
        const std::string_view line = cgroups.substr(0, cgroups.find('\n'));
        cgroups.remove_prefix(std::min(line.size() + 1, cgroups.size()));
        const std::size_t path = line.find(":/");
        if (path == std::string_view::npos ||
            (line.substr(0, 3) != "0::" && line.find(":name=systemd:") == std::string_view::npos)) {
            continue;
        }
        const std::string_view name = line.substr(line.rfind('/') + 1);
        if (name.size() > ending.size() && name.substr(name.size() - ending.size()) == ending) {
            return std::string(name);
        }
    }
    return {};
}

std::string serviceOf(pid_t pid) {
    return serviceIn(readProcFile("/proc/" + std::to_string(pid) + "/cgroup"));
}

std::string managingService(pid_t daemon) {
    std::string service = serviceOf(daemon);
    // Of another name it is a program that has started the daemon once, and not its manager.
    const bool isItsOwn = service.compare(0, GLOBAL::progName.size(), GLOBAL::progName) == 0;
    return isItsOwn && service != serviceOf(getpid()) ? service : std::string();
}

} // namespace control
