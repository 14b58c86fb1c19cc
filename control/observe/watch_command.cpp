// skarnctl watch: shows what the daemon does.
#include "control/observe/watch_command.h"

#include "control/observe/figures.h"
#include "control/observe/snapshot_source.h"
#include "control/observe/watch_layout.h"
#include "control/observe/watch_screen.h"
#include "utilities/descriptors.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include <langinfo.h>
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

/// Writes to the standard output; the status to end with if that is not possible, else `succeeded`.
int print(const std::string& text, bool& goesOn) {
    if (writeAll(STDOUT_FILENO, text)) {
        return succeeded;
    }
    goesOn = false;
    if (errno == EPIPE) {
        return succeeded; // the reader has seen enough
    }
    complain(std::string("cannot write: ") + std::strerror(errno));
    return failed;
}

/// Whether there is anything to be shown at all.
bool knowsNothing(const Snapshot& snapshot) {
    return !snapshot.configProblem.empty() && snapshot.detectors.empty() &&
           snapshot.log.coverage == LogCoverage::none && !snapshot.isServed();
}

bool isUnicodeLocale() {
    return std::setlocale(LC_CTYPE, "") != nullptr &&
           std::string_view(nl_langinfo(CODESET)) == "UTF-8";
}

/// One report, after a while of looking.
int reportOnce(SnapshotSource& source, bool asJson) {
    const Snapshot first = source.look();
    if (knowsNothing(first)) {
        complain(first.configProblem);
        return failed;
    }
    bool goesOn = waitUntil(monotonicSeconds() + lookingTime);
    if (!goesOn) {
        return succeeded;
    }
    const Snapshot snapshot = source.look();
    return print(asJson ? jsonText(snapshot, false) + "\n" : watchText(snapshot, isUnicodeLocale()),
                 goesOn);
}

/// One line of JSON after each interval, until nobody reads them.
int reportLines(SnapshotSource& source, double interval) {
    bool goesOn = true;
    int status = succeeded;
    double next = monotonicSeconds();
    for (bool isFirst = true; goesOn; isFirst = false) {
        const Snapshot snapshot = source.look();
        if (isFirst && knowsNothing(snapshot)) {
            complain(snapshot.configProblem);
            return failed;
        }
        status = print(jsonText(snapshot, true) + "\n", goesOn);
        // One that comes late does not let the next ones come faster.
        next = std::max(next + interval, monotonicSeconds());
        goesOn = goesOn && waitUntil(next);
    }
    return status;
}

std::string checkInterval(const std::string& text) {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' ||
        !(seconds >= shortestInterval && seconds <= longestInterval)) {
        return "must be from 0.2 to 3600 seconds, not " + text;
    }
    return {};
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
            ->check(CLI::Validator(checkInterval, ""))
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
