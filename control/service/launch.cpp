// One run of the command that starts the daemon, up to the moment at which it has detached or not.
#include "control/service/launch.h"

#include "control/child.h"

#include <algorithm>
#include <cerrno>

#include <sys/prctl.h>
#include <unistd.h>

namespace control {

namespace {

/// The oldest child that was not there before: the start command's own, whose parent this process
/// has become. (A daemon that has ended already may have left copy processes here, too.)
std::optional<Process> adoptedSince(const std::vector<pid_t>& before, const Process& starter) {
    std::optional<Process> oldest;
    for (const pid_t pid : childrenOf(getpid())) {
        const std::optional<Process> process = readProcess(pid);
        if (process && pid != starter.pid && process->startTicks >= starter.startTicks &&
            !std::binary_search(before.begin(), before.end(), pid) &&
            (!oldest || process->startTicks < oldest->startTicks)) {
            oldest = process;
        }
    }
    return oldest;
}

} // namespace

Launch launchDaemon(const std::string& path, const std::vector<std::string>& words,
                    std::chrono::milliseconds limit) {
    Launch launch;
    if (prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
        launch.startError = errno;
        return launch;
    }
    const std::vector<pid_t> before = childrenOf(getpid());
    std::vector<std::string> command = {path};
    command.insert(command.end(), words.begin(), words.end());
    Child starter(command);
    launch.startError = starter.startError();
    if (launch.startError != 0) {
        return launch;
    }
    // Read before it is waited for, so that the number is still its own.
    const std::optional<Process> process = readProcess(starter.pid());
    launch.letGo = starter.finish(Child::Clock::now() + limit);
    if (process) {
        launch.daemon = adoptedSince(before, *process);
    }
    starter.kill();
    launch.status = starter.status().value_or(0);
    launch.output = starter.text();
    return launch;
}

} // namespace control
