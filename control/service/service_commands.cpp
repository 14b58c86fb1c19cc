// The subcommands that start, stop and ask after the daemon.
#include "control/service/service_commands.h"

#include "control/control_files.h"
#include "control/service/daemon_processes.h"
#include "control/service/service_lock.h"
#include "control/service/start.h"
#include "control/service/status.h"
#include "control/service/stop.h"
#include "daemon/global.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <functional>
#include <memory>
#include <string_view>

namespace control {

namespace {

constexpr int secondsInADay = 86400;
constexpr int defaultIdlePatience = 60;

/// Does something to the service while no other skarnctl does.
int underLock(const std::function<int()>& action) {
    const ServiceLock lock;
    if (!lock.isHeld()) {
        complain(lock.problem());
        return lock.isForbidden() ? notAllowed : failed;
    }
    return action();
}

/// Seconds as the command line's parser wants them checked.
CLI::Validator seconds() {
    return CLI::Validator(
        [](std::string& text) {
            return parseSeconds(text) ? std::string()
                                      : "\"" + text + "\" is no number of seconds up to " +
                                            std::to_string(secondsInADay);
        },
        "SECONDS");
}

void addStop(CLI::App& app, const CommonOptions& common, int& exitStatus) {
    struct Values {
        std::string whenIdle = std::to_string(defaultIdlePatience);
        std::string timeout = std::to_string(StopOptions().timeout.count());
    };
    const auto values = std::make_shared<Values>();
    CLI::App* const stop = app.add_subcommand("stop", "End the daemon and its copy processes");
    CLI::Option* const whenIdle =
        stop->add_flag("--when-idle{" + values->whenIdle + "}", values->whenIdle,
                       "Wait up to SECONDS (60) for a moment in which no copy process runs, so "
                       "that no copied file goes unannounced; fail if there is none")
            ->check(seconds());
    stop->add_option("--timeout", values->timeout,
                     "Send SIGKILL to what has not heeded SIGTERM so long")
        ->check(seconds())
        ->capture_default_str();
    stop->callback([&common, &exitStatus, values, whenIdle] {
        StopOptions options;
        options.timeout = std::chrono::seconds(parseSeconds(values->timeout).value_or(0));
        if (whenIdle->count() > 0) {
            options.whenIdle = std::chrono::seconds(parseSeconds(values->whenIdle).value_or(0));
        }
        exitStatus = underLock([&] { return stopDaemon(common.daemonPath, options); });
    });
}

void addStatus(CLI::App& app, const CommonOptions& common, int& exitStatus) {
    CLI::App* const status =
        app.add_subcommand("status", "Tell whether the daemon runs (exit status 0: it does, 1: "
                                     "dead, 3: it does not, 4: unknown)");
    const auto json = std::make_shared<bool>(false);
    status->add_flag("--json", *json, "As one JSON object");
    status->callback([&common, &exitStatus, json] {
        const DaemonProcesses found = findDaemon(common.daemonPath, Search::always);
        const std::string text = *json ? statusJson(found, readStatusFile()) : statusText(found);
        std::fputs(text.c_str(), stdout);
        exitStatus = statusCode(found.state);
    });
}

} // namespace

void addServiceCommands(CLI::App& app, const CommonOptions& common, int& exitStatus) {
    app.add_subcommand("start", "Start the daemon; all words behind it are the daemon's: "
                                "[-u UID:GID] [-d DETECTOR_ID:SOURCE:TARGET]...")
        ->callback([&common, &exitStatus] {
            exitStatus = underLock(
                [&common] { return startDaemon(common.daemonPath, common.startOptions); });
        });
    app.add_subcommand("restart",
                       "The same as stop and then start, unless it is clear that the start would "
                       "fail; all words behind it are the daemon's: [-u UID:GID] "
                       "[-d DETECTOR_ID:SOURCE:TARGET]...")
        ->callback([&common, &exitStatus] {
            exitStatus = underLock([&common] {
                // A daemon that works is not ended for one that can't.
                const std::string reason =
                    whyItWouldNotStart(common.daemonPath, common.startOptions);
                if (!reason.empty()) {
                    complain("nothing was stopped: " + GLOBAL::progName +
                             " would not start: " + reason);
                    return static_cast<int>(failed);
                }
                const int stopped = stopDaemon(common.daemonPath, {});
                return stopped == succeeded ? startDaemon(common.daemonPath, common.startOptions)
                                            : stopped;
            });
        });
    addStop(app, common, exitStatus);
    addStatus(app, common, exitStatus);
}

int firstStartOption(int argc, const char* const* argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "start" || word == "restart") {
            // Neither is an option of the daemon; alone, they ask for help.
            const std::string_view last = argv[argc - 1];
            return i + 2 == argc && (last == "--help" || last == "-h") ? argc : i + 1;
        }
        if (word == "--daemon") {
            ++i;
        } else if (word.compare(0, 9, "--daemon=") != 0) {
            break;
        }
    }
    return argc;
}

std::optional<int> parseSeconds(const std::string& text) {
    int seconds = 0;
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, seconds);
    if (read.ec != std::errc() || read.ptr != end || seconds < 0 || seconds > secondsInADay ||
        text.front() == '-') {
        return std::nullopt;
    }
    return seconds;
}

} // namespace control
