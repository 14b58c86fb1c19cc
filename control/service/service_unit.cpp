// Which unit of systemd runs the daemon.
#include "control/service/service_unit.h"

#include "control/child.h"
#include "daemon/global.h"

#include <cstdlib>

#include <systemd/sd-login.h>

namespace control {

namespace {

std::string unitOf(pid_t pid) {
    char* name = nullptr;
    if (sd_pid_get_unit(pid, &name) < 0) {
        return {};
    }
    std::string unit = name;
    std::free(name);
    return unit;
}

} // namespace

std::string managingService(pid_t daemon) {
    constexpr std::string_view ending = ".service";
    const std::string unit = unitOf(daemon);
    if (unit.size() <= ending.size() || unit == unitOf(0) ||
        unit.compare(unit.size() - ending.size(), ending.size(), ending) != 0) {
        return {};
    }
    constexpr std::chrono::seconds limit{5};
    Child question({"/usr/bin/systemctl", "show", "--property=MainPID", "--value", "--", unit});
    const bool isAnswered = question.startError() == 0 &&
                            question.finish(Child::Clock::now() + limit) && question.status() == 0;
    if (question.startError() == 0) {
        question.kill();
    }
    const bool isItsOwn = isAnswered
                              ? firstLine(question.text()) == std::to_string(daemon)
                              : unit.compare(0, GLOBAL::progName.size(), GLOBAL::progName) == 0;
    return isItsOwn ? unit : std::string();
}

} // namespace control
