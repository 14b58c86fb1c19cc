// The running relay: the parts, the threads that they run on, and their end.
#include "relay/relay.h"

#include "relay/delivery.h"
#include "relay/digests.h"
#include "relay/http_server.h"
#include "relay/intake.h"
#include "relay/messages.h"
#include "relay/record_log.h"
#include "relay/run.h"
#include "relay/runs.h"
#include "relay/status.h"
#include "relay/subscribers.h"
#include "relay/targets.h"
#include "relay/view.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <malloc.h>
#include <pthread.h>
#include <systemd/sd-daemon.h>

namespace relay {

namespace {

constexpr int turnLimit = 200; // milliseconds that the intake waits at most
// Seconds without a turn of the intake: longer than it takes to carry over a large damaged
// database.
constexpr std::int64_t aliveLimit = 3600;
constexpr auto runPause = std::chrono::milliseconds(1000);
constexpr std::int64_t tidyPause = 10; // seconds
constexpr double nanosecond = 1e-9;

/// The pipe that the service manager holds and has passed; -1 if it has passed none.
int passedPipe() {
    const int count = sd_listen_fds(1);
    if (count > 1) {
        throw std::runtime_error("more than one descriptor was passed; only a pipe is expected");
    }
    return count == 1 ? SD_LISTEN_FDS_START : -1;
}

class Relay {
public:
    Relay(const Settings& itsSettings, const std::function<void()>& afterCommit)
        : settings(itsSettings), targets(settings.daemonConfiguration), log(settings.log.folder),
          subscribers(log, settings.subscribers), intake(settings.pipe, passedPipe(), log, targets),
          runs(settings.runs.pattern.empty() ? nullptr
                                             : std::make_unique<Runs>(settings.runs, log)),
          view(settings.http.figures, runs.get()),
          server(serveHttp(settings.http,
                           {log, subscribers, [this] { return status(); }, view, runs.get()})) {
        intake.afterCommit = afterCommit;
        threads.emplace_back([this] { takeIn(); });
        if (runs) {
            threads.emplace_back([this] { followRuns(); });
            digests.emplace(*runs, [this](std::string_view path) {
                return targets.locate(path).target.size();
            });
        }
        const RunPattern runPattern(settings.runs.pattern);
        for (const auto& each : subscribers.all()) {
            if (std::shared_ptr<Delivery> delivery = makeDelivery(log, runPattern, each)) {
                threads.emplace_back(
                    [this, each, delivery] { deliver(log, *each, *delivery, isEnding); });
            }
        }
    }

    ~Relay() {
        isEnding = true;
        log.interrupt();
        for (std::thread& each : threads) {
            each.join();
        }
        for (const auto& each : subscribers.all()) {
            save(*each);
        }
    }
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    /// False if the intake hangs in something that does not come back.
    bool isAlive() const { return now() - lastTurn < aliveLimit * billion; }

    /// Removes what is old, and writes down what subscribers did not want. To be called every
    /// second or so; mostly does nothing.
    void tidy() {
        const IntakeFigures taken = intake.figures();
        view.note(now(), taken.records, taken.bytes);
        if (now() < nextTidy) {
            return;
        }
        nextTidy = now() + tidyPause * billion;
        for (const auto& each : subscribers.all()) {
            save(*each);
        }
        try {
            if (runs) {
                runs->removeOld(now() - settings.log.keepSeconds * billion);
            }
            subscribers.removeOld(settings.log, runs ? runs->position() : INT64_MAX);
        } catch (const std::runtime_error& error) {
            warn(std::string("old records cannot be removed: ") + error.what());
        }
    }

private:
    void takeIn() {
        while (!isEnding) {
            try {
                intake.turn(turnLimit);
            } catch (const std::exception& error) {
                warn(error.what());
                std::this_thread::sleep_for(std::chrono::seconds(1));
            }
            lastTurn = now();
        }
    }

    /// Counts what comes, and ends runs when their time has come.
    void followRuns() {
        while (!isEnding) {
            try {
                runs->follow(now());
                runTrouble.clear();
            } catch (const std::runtime_error& error) {
                if (runTrouble != error.what()) {
                    runTrouble = error.what();
                    warn("runs cannot be followed now: " + runTrouble);
                }
            }
            // Sleeps for so long even if all is counted and a record comes: some at once cost less.
            log.waitBehind(runs->position(), runPause);
            std::this_thread::sleep_for(std::chrono::milliseconds(turnLimit));
        }
    }

    static void save(Subscription& subscription) {
        try {
            subscription.save();
        } catch (const DatabaseError&) {
            // It is delivered again what it did not want, and is asked again.
        }
    }

    Status status() {
        Status status;
        status.pipe = settings.pipe.path;
        status.intake = intake.figures();
        if (const std::int64_t since = status.intake.stalledSince; since != 0) {
            status.stalledSeconds = static_cast<double>(now() - since) * nanosecond;
        }
        status.since = static_cast<double>(started) * nanosecond;
        status.log = log.figures();
        for (const auto& each : subscribers.all()) {
            status.subscribers.push_back(each->figures());
        }
        return status;
    }

    const Settings settings;
    const std::int64_t started = now();
    std::atomic<bool> isEnding{false};
    std::atomic<std::int64_t> lastTurn{now()};
    std::int64_t nextTidy = 0; // nanoseconds since 1970
    Targets targets;
    RecordLog log;
    Subscribers subscribers;
    Intake intake;
    const std::unique_ptr<Runs> runs; // nothing if there are none
    std::string runTrouble;           // of the thread that follows them
    std::optional<Digests> digests;
    View view;
    const std::shared_ptr<void> server;
    std::vector<std::thread> threads;
};

} // namespace

int runRelay(const Settings& settings, const std::function<void()>& afterCommit) {
    // Without these, each of the many threads would keep what it once needed for a large answer.
    ::mallopt(M_ARENA_MAX, 2);
    ::mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    // Blocked for all threads: only the wait below takes them.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    std::unique_ptr<Relay> relay;
    try {
        relay = std::make_unique<Relay>(settings, afterCommit);
    } catch (const std::exception& error) {
        warn(error.what());
        return 1;
    }
    sd_notify(0, "READY=1");
    inform("taking records from " + settings.pipe.path);
    const timespec second = {1, 0};
    while (sigtimedwait(&ends, nullptr, &second) < 0) {
        relay->tidy();
        if (relay->isAlive()) {
            sd_notify(0, "WATCHDOG=1");
        }
    }
    sd_notify(0, "STOPPING=1");
    return 0;
}

} // namespace relay
