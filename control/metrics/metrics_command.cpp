// skarnctl metrics: the daemon's figures for Prometheus, over HTTP or once.
#include "control/metrics/metrics_command.h"

#include "control/metrics/listen_address.h"
#include "control/metrics/metric_families.h"
#include "control/observe/snapshot_source.h"
#include "utilities/descriptors.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/text_serializer.h>
#include <pthread.h>
#include <unistd.h>

namespace control {

namespace {

struct MetricsOptions {
    std::string listen;
    bool once = false;
    std::string configFile;
};

/// The source behind a lock: scrapes come on the server's threads, and the log is followed between
/// them.
class Figures : public prometheus::Collectable {
public:
    explicit Figures(SnapshotOptions options) : source(std::move(options)) {}

    std::vector<prometheus::MetricFamily> Collect() const override {
        return metricFamilies(look());
    }

    /// One look, so that no rotation is missed while nobody scrapes.
    Snapshot look() const {
        const std::lock_guard<std::mutex> guard(mutex);
        return source.take();
    }

private:
    mutable std::mutex mutex;
    mutable SnapshotSource source; // guarded by `mutex`
};

/// Blocks the signals that end this program, for all threads that are made later.
class EndSignals {
public:
    EndSignals() {
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGINT);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
    }

    /// Waits for one of them, a second at most. True when there was one.
    bool arrived() const {
        const timespec second = {1, 0};
        return sigtimedwait(&set, nullptr, &second) > 0;
    }

private:
    sigset_t set{};
};

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

int printOnce(const Figures& figures) {
    const std::string text = prometheus::TextSerializer().Serialize(figures.Collect());
    if (!writeAll(STDOUT_FILENO, text)) {
        complain(std::string("cannot write: ") + std::strerror(errno));
        return failed;
    }
    return succeeded;
}

int serve(const std::shared_ptr<Figures>& figures, const std::string& where) {
    const ListenAddress address = parseListenAddress(where);
    if (!address.problem.empty()) {
        complain(address.problem);
        return badUsage;
    }
    // The server's own words for it would name no reason.
    if (const std::string problem = whyNotListen(address); !problem.empty()) {
        complain(problem);
        return failed;
    }
    const EndSignals signals;
    std::unique_ptr<prometheus::Exposer> exposer;
    try {
        // A client that says nothing must not hold a thread for long.
        exposer = std::make_unique<prometheus::Exposer>(std::vector<std::string>{
            "listening_ports", address.text, "num_threads", "4", "request_timeout_ms", "5000"});
    } catch (const std::exception& error) {
        // The address could be listened at just now.
        complain("cannot listen at " + address.text + ": " +
                 (address.isVersion6 ? "the HTTP library here was built without IPv6; use an IPv4 "
                                       "address, such as 127.0.0.1, and a proxy before it"
                                     : firstLine(error.what())));
        return failed;
    }
    figures->look();
    exposer->RegisterCollectable(figures);
    while (!signals.arrived()) {
        figures->look();
    }
    return succeeded;
}

} // namespace

void addMetricsCommand(CLI::App& app, const CommonOptions& common, int& exitStatus) {
    const auto options = std::make_shared<MetricsOptions>();
    CLI::App* const command =
        app.add_subcommand("metrics", "Give the daemon's figures to Prometheus");
    CLI::Option* const listen =
        command
            ->add_option("--listen", options->listen,
                         "Serve them at http://ADDRESS:PORT/metrics, until ended by SIGTERM")
            ->type_name("ADDRESS:PORT");
    command->add_flag("--once", options->once, "Print them once")->excludes(listen);
    command->add_option("--config", options->configFile, "Read this configuration file")
        ->type_name("FILE");
    command->callback([options, &common, &exitStatus] {
        if (options->once == !options->listen.empty()) {
            complain("metrics takes either --listen ADDRESS:PORT or --once");
            exitStatus = badUsage;
            return;
        }
        std::signal(SIGPIPE, SIG_IGN);
        const auto figures =
            std::make_shared<Figures>(SnapshotOptions{options->configFile, common.daemonPath});
        exitStatus = options->once ? printOnce(*figures) : serve(figures, options->listen);
    });
}

} // namespace control
