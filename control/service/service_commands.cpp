// The subcommands that start, stop and ask after the daemon.
#include "control/service/service_commands.h"

#include "control/check/check_command.h"
#include "control/child.h"
#include "control/command.h"
#include "control/control_files.h"
#include "control/service/daemon_processes.h"
#include "control/service/process_handle.h"
#include "control/service/service_unit.h"
#include "control/service/start.h"
#include "control/service/status.h"
#include "control/service/stop.h"
#include "daemon/global.h"
#include "utilities/descriptors.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string_view>

#include <fcntl.h>
#include <sys/file.h>

namespace control {

namespace {

constexpr int secondsInADay = 86400;
constexpr const char* lockPath = "/var/run/skarnctl.lock";
constexpr std::chrono::seconds lockPatience{10};

/// Longer than the unit gives the daemon to stop, and the next one to start.
constexpr std::chrono::seconds systemctlPatience{150};

/// Does something to the service while no other skarnctl does, wherever it runs: by hand or in a
/// unit. The file stays; what counts is who has it locked, and no child inherits that.
int underLock(const std::function<int()>& action) {
    const Descriptor lock(
        open(lockPath, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (lock.get() < 0) {
        const bool isForbidden = errno == EACCES || errno == EPERM;
        complain(std::string("cannot open ") + lockPath + ": " + std::strerror(errno) +
                 (isForbidden ? "; this needs root's rights" : ""));
        return isForbidden ? notAllowed : failed;
    }
    if (!waitFor([&lock] { return flock(lock.get(), LOCK_EX | LOCK_NB) == 0; }, lockPatience)) {
        complain(std::string("another skarnctl is starting or stopping the daemon (it has ") +
                 lockPath + " locked)");
        return failed;
    }
    return action();
}

/// Complains if it is clear that a start would fail: a daemon that works is not ended for that.
bool wouldStart(const std::string& daemonPath, const std::vector<std::string>& startOptions) {
    const std::string reason = whyItWouldNotStart(daemonPath, startOptions);
    if (!reason.empty()) {
        complain("nothing was stopped: " + GLOBAL::progName + " would not start: " + reason);
    }
    return reason.empty();
}

/// Has systemd restart what it runs. Not under the lock, which the unit's own skarnctl needs.
int restartService(const std::string& service, const CommonOptions& common) {
    if (!common.startOptions.empty()) {
        complain("nothing was stopped: systemd runs " + GLOBAL::progName + " as " + service +
                 ", whose start options stand in " + unitOptionsFile);
        return failed;
    }
    if (!wouldStart(common.daemonPath, unitOptions())) {
        return failed;
    }
    Child systemctl({"/usr/bin/systemctl", "restart", "--", service});
    const bool hasEnded =
        systemctl.startError() == 0 && systemctl.finish(Child::Clock::now() + systemctlPatience);
    if (!hasEnded || *systemctl.status() != 0) {
        complain("systemd did not restart " + service + ": " + firstLine(systemctl.text()));
        return failed;
    }
    say("systemd has restarted " + service);
    return succeeded;
}

int restart(const CommonOptions& common, const StopOptions& options) {
    const DaemonProcesses found = findDaemon(common.daemonPath);
    const std::string service = found.pid() != 0 ? managingService(found.pid()) : "";
    if (!service.empty()) {
        return restartService(service, common);
    }
    return underLock([&] {
        if (!wouldStart(common.daemonPath, common.startOptions)) {
            return static_cast<int>(failed);
        }
        const int stopped = stopDaemon(common.daemonPath, options);
        return stopped == succeeded ? startDaemon(common.daemonPath, common.startOptions) : stopped;
    });
}

/// Adds --when-idle to a command; gives what it makes of the options once the line is parsed.
std::function<StopOptions()> addWhenIdle(CLI::App& command) {
    const auto seconds = std::make_shared<int>(0);
    CLI::Option* const option =
        command
            .add_flag("--when-idle{60}", *seconds,
                      "Wait up to SECONDS (60) for a moment in which no copy process runs, so that "
                      "no copied file goes unannounced; fail if there is none")
            ->check(CLI::Range(0, secondsInADay));
    return [option, seconds] {
        StopOptions options;
        if (option->count() > 0) {
            options.whenIdle = std::chrono::seconds(*seconds);
        }
        return options;
    };
}

} // namespace

void addServiceCommands(CLI::App& app, const CommonOptions& common, int& exitStatus) {
    app.add_subcommand("start", "Start the daemon; all words behind it are the daemon's: "
                                "[-u UID:GID] [-d DETECTOR_ID:SOURCE:TARGET]...")
        ->callback([&common, &exitStatus] {
            exitStatus =
                underLock([&] { return startDaemon(common.daemonPath, common.startOptions); });
        });

    CLI::App* const again = app.add_subcommand(
        "restart", "The same as stop and then start, unless it is clear that the start would "
                   "fail; all words behind it and its --when-idle are the daemon's: "
                   "[-u UID:GID] [-d DETECTOR_ID:SOURCE:TARGET]...");
    again->callback([&common, &exitStatus, options = addWhenIdle(*again)] {
        exitStatus = restart(common, options());
    });

    CLI::App* const stop = app.add_subcommand("stop", "End the daemon and its copy processes");
    const auto timeout = std::make_shared<int>(static_cast<int>(StopOptions().timeout.count()));
    const auto stopOptions = addWhenIdle(*stop);
    stop->add_option("--timeout", *timeout, "Send SIGKILL to what has not heeded SIGTERM so long")
        ->check(CLI::Range(0, secondsInADay))
        ->capture_default_str();
    stop->callback([&common, &exitStatus, timeout, stopOptions] {
        StopOptions options = stopOptions();
        options.timeout = std::chrono::seconds(*timeout);
        exitStatus = underLock([&] { return stopDaemon(common.daemonPath, options); });
    });

    CLI::App* const status =
        app.add_subcommand("status", "Tell whether the daemon runs (exit status 0: it does, 1: "
                                     "dead, 3: it does not, 4: unknown, 5: it seems to)");
    const auto json = std::make_shared<bool>(false);
    status->add_flag("--json", *json, "As one JSON object");
    status->callback([&common, &exitStatus, json] {
        const DaemonProcesses found = findDaemon(common.daemonPath, Search::always);
        const std::string text = *json ? statusJson(found, readStatusFile()) : statusText(found);
        exitStatus = print(text).value_or(statusCode(found.state));
    });
}

int firstStartOption(int argc, const char* const* argv) {
    const auto begins = [argv](int index, std::string_view beginning) {
        return std::string_view(argv[index]).substr(0, beginning.size()) == beginning;
    };
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "start" || word == "restart") {
            // Neither is an option of the daemon; alone, they ask for help.
            const std::string_view last = argv[argc - 1];
            if (i + 2 == argc && (last == "--help" || last == "-h")) {
                return argc;
            }
            const bool isIdle = word == "restart" && i + 1 < argc && begins(i + 1, "--when-idle");
            return i + (isIdle ? 2 : 1);
        }
        if (word == "--daemon") {
            ++i;
        } else if (!begins(i, "--daemon=")) {
            break;
        }
    }
    return argc;
}

} // namespace control
