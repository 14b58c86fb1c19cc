// skarnctl metrics: the daemon's figures for Prometheus, over HTTP, in a file or once.
#include "control/command.h"
#include "control/file.h"
#include "control/metrics/metrics_server.h"
#include "control/observe/event_watch.h"
#include "control/observe/figures.h"
#include "control/observe/snapshot_source.h"
#include "control/process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <unistd.h>

namespace control {

namespace {

constexpr std::chrono::seconds betweenLooks(1);

/// A file of figures that has not changed for so many looks says nothing of now.
constexpr int oldestLook = 10;

/// More bytes of figures than any configuration makes.
constexpr std::size_t mostFigures = 64UL * 1024 * 1024;

/// Looks itself, and notes what changed in the event journal.
Look observer(const SnapshotOptions& options) {
    return [source = std::make_shared<SnapshotSource>(options), watch = EventWatch(),
            complained = false]() mutable {
        const Snapshot snapshot = source->look();
        const std::vector<std::string> texts = watch.changes(snapshot);
        const std::string problem = texts.empty() ? std::string() : noteEvents(texts);
        if (!problem.empty() && !std::exchange(complained, true)) {
            complain(problem);
        }
        return metricsText(snapshot);
    };
}

/// Reads what another one has written, as long as that one lives: each look is a new file.
Look reader(const std::string& path) {
    return [path, lastChange = std::optional<double>(), unchanged = 0]() mutable {
        const std::optional<double> changed = modificationTime(path);
        unchanged = changed == lastChange ? unchanged + 1 : 0;
        lastChange = changed;
        return unchanged > oldestLook ? std::nullopt : readFile(path, mostFigures).text;
    };
}

/// Ends at once: nothing is left half-done that matters.
void endOnSignals() {
    const auto end = [](int) { _exit(succeeded); };
    std::signal(SIGTERM, end);
    std::signal(SIGINT, end);
}

/// Replaces the file after each look.
int writeFile(const SnapshotOptions& options, const std::string& path) {
    endOnSignals();
    for (const Look look = observer(options);;) {
        if (!replaceFile(path, look().value())) {
            complain("cannot write " + path + ": " + std::strerror(errno));
            return failed;
        }
        std::this_thread::sleep_for(betweenLooks);
    }
}

int serve(const MetricsOptions& options, const SnapshotOptions& where) {
    const Listening listening = listenAt(options.listen);
    if (!listening.problem.empty()) {
        complain(listening.problem);
        return listening.isWrong ? badUsage : failed;
    }
    endOnSignals();
    serveMetrics(listening.socket, options.from.empty() ? observer(where) : reader(options.from));
}

} // namespace

int runMetrics(const CommonOptions& common, const MetricsOptions& options) {
    if (!options.once && options.listen.empty() && options.write.empty()) {
        complain("metrics takes --listen ADDRESS:PORT, --write FILE or --once");
        return badUsage;
    }
    std::signal(SIGPIPE, SIG_IGN);
    const SnapshotOptions where{options.configFile, common.daemonPath};
    return options.once ? print(metricsText(SnapshotSource(where).look())).value_or(succeeded)
           : options.write.empty() ? serve(options, where)
                                   : writeFile(where, options.write);
}

} // namespace control
