// skarnctl watch: shows what the daemon does.
#include "control/command.h"
#include "control/observe/figures.h"
#include "control/observe/snapshot_source.h"
#include "control/observe/watch_layout.h"
#include "control/observe/watch_screen.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <csignal>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include <poll.h>
#include <unistd.h>

namespace control {

namespace {

constexpr double shortestInterval = 0.2;
constexpr double longestInterval = 3600;

/// How long a single report looks, so that it can tell a rate.
constexpr double lookingTime = 2;

struct WatchOptions {
    bool once = false;
    bool json = false;
    double interval = 1;
    std::string configFile;
};

double monotonicSeconds() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// Waits until then, or until nobody reads the standard output any more. False in that case.
bool waitUntil(double moment) {
    for (;;) {
        const double left = moment - monotonicSeconds();
        if (left <= 0) {
            return true;
        }
        pollfd output = {STDOUT_FILENO, 0, 0};
        const int ready = poll(&output, 1, static_cast<int>(std::ceil(left * 1000)));
        if (ready > 0 && (output.revents & (POLLERR | POLLNVAL)) != 0) {
            return false;
        }
        if (ready > 0) {
            // A terminal that hung up, for instance: it would only be told again.
            return (output.revents & POLLHUP) == 0;
        }
    }
}

/// Whether there is anything to be shown at all.
bool knowsNothing(const Snapshot& snapshot) {
    return !snapshot.configProblem.empty() && snapshot.detectors.empty() &&
           snapshot.log.coverage == LogCoverage::none && !snapshot.isServed();
}

/// One report, after a while of looking.
int reportOnce(SnapshotSource& source, bool asJson) {
    const Snapshot first = source.look();
    if (knowsNothing(first)) {
        complain(first.configProblem);
        return failed;
    }
    if (!waitUntil(monotonicSeconds() + lookingTime)) {
        return succeeded;
    }
    const Snapshot snapshot = source.look();
    return print(asJson ? jsonText(snapshot, false) + "\n" : watchText(snapshot, usesUnicode()))
        .value_or(succeeded);
}

/// One line of JSON after each interval, until nobody reads them.
int reportLines(SnapshotSource& source, double interval) {
    double next = monotonicSeconds();
    for (bool isFirst = true;; isFirst = false) {
        const Snapshot snapshot = source.look();
        if (isFirst && knowsNothing(snapshot)) {
            complain(snapshot.configProblem);
            return failed;
        }
        if (const std::optional<int> end = print(jsonText(snapshot, true) + "\n")) {
            return *end;
        }
        // One that comes late does not let the next ones come faster.
        next = std::max(next + interval, monotonicSeconds());
        if (!waitUntil(next)) {
            return succeeded;
        }
    }
}

} // namespace

void addWatchCommand(CLI::App& app, const CommonOptions& common, int& exitStatus) {
    const auto options = std::make_shared<WatchOptions>();
    CLI::App* const command = app.add_subcommand("watch", "Show what the daemon does");
    CLI::Option* const once =
        command->add_flag("--once", options->once, "One plain report instead of the live view");
    command->add_flag("--json", options->json,
                      "One JSON object; with --interval, one in a line each time");
    CLI::Option* const interval =
        command
            ->add_option("--interval", options->interval, "Seconds between two looks (0.2 to 3600)")
            ->type_name("SECONDS")
            ->capture_default_str()
            ->check(CLI::Validator(
                [](const std::string& text) {
                    const double seconds = std::strtod(text.c_str(), nullptr); // may be no number
                    return seconds >= shortestInterval && seconds <= longestInterval
                               ? std::string()
                               : "must be from 0.2 to 3600 seconds, not " + text;
                },
                ""))
            ->excludes(once);
    command->add_option("--config", options->configFile, "Read this configuration file")
        ->type_name("FILE");
    command->callback([options, interval, &common, &exitStatus] {
        std::signal(SIGPIPE, SIG_IGN);
        SnapshotSource source({options->configFile, common.daemonPath});
        if (options->json && interval->count() > 0) {
            exitStatus = reportLines(source, options->interval);
        } else if (options->json || options->once || isatty(STDOUT_FILENO) == 0) {
            exitStatus = reportOnce(source, options->json);
        } else {
            exitStatus = runWatchScreen(source, options->interval);
        }
    });
}

} // namespace control
