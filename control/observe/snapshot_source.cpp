// Looks at the daemon from outside, again and again, and says what it saw.
#include "control/observe/snapshot_source.h"

#include "control/configuration.h"
#include "control/consumer_pipe.h"
#include "control/control_files.h"
#include "control/observe/free_space.h"
#include "control/observe/log_follower.h"
#include "control/observe/log_model.h"
#include "control/observe/rate_history.h"
#include "control/observe/recent_changes.h"
#include "control/process.h"
#include "control/service/daemon_processes.h"
#include "daemon/global.h"
#include "transfer/copy_command.h"
#include "utilities/text.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace control {

namespace {

constexpr double secondsKept = 300;
constexpr double shortWhile = 10;
constexpr double shortestForRate = 1;
constexpr double shortestForFilling = 10;
constexpr int secondsOfHistory = 60;

/// Beyond that a target is not called filling.
constexpr double longestUntilFull = 365 * 86400.0;

/// The search for readers of the pipe goes through all open files of the machine. It may take this
/// part of the time, and be this old at most.
constexpr double partForPipe = 0.004;
constexpr double oldestPipe = 30;

/// The date of the configuration file and the start of the daemon come from different clocks.
constexpr double clockTolerance = 1;

double secondsOf(clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// Which content a file has, as far as its status tells.
using Version = std::tuple<dev_t, ino_t, off_t, time_t, long>;

std::optional<Version> versionOf(const std::string& path, double* modified = nullptr) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    if (modified != nullptr) {
        *modified = static_cast<double>(status.st_mtim.tv_sec) +
                    static_cast<double>(status.st_mtim.tv_nsec) / 1e9;
    }
    return Version{status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
                   status.st_mtim.tv_nsec};
}

/// Hands lines on from the file to the model.
class ModelSink : public LogSink {
public:
    explicit ModelSink(LogModel& logModel) : model(logModel) {}
    void takeLines(std::string_view lines) override {
        model.feed(lines);
        took = true;
    }
    void takeGap() override { model.lostTrack(); }
    bool tookAny() const { return took; }

private:
    LogModel& model;
    bool took = false;
};

/// One log with what was read in it.
struct WatchedLog {
    WatchedLog(const std::string& path, int highestArchive)
        : sink(model), follower(path, highestArchive) {}

    LogModel model;
    ModelSink sink;
    LogFollower follower;
};

/// What one of the daemon's children is there for.
struct ChildTask {
    enum class Kind { other, listing, copying };
    Kind kind = Kind::other;
    std::string url;
    std::string destination; // when copying
};

ChildTask taskOf(const std::vector<std::string>& words) {
    ChildTask task;
    if (words.size() < 2) {
        return task;
    }
    const auto begins = [&words](std::string_view beginning) {
        return std::any_of(words.begin(), words.end(), [beginning](const std::string& word) {
            return word.compare(0, beginning.size(), beginning) == 0;
        });
    };
    if (words[1] == "-c") {
        // The shell that a listing is run through, unless it has become the listing already.
        constexpr std::string_view redirection = " 2>";
        const std::string& command = words.back();
        const std::size_t end = command.rfind(redirection);
        const std::size_t begin = command.rfind(' ', end == 0 ? 0 : end - 1);
        if (command.find(" --list-only ") != std::string::npos && end != std::string::npos &&
            begin != std::string::npos) {
            task.kind = ChildTask::Kind::listing;
            task.url = command.substr(begin + 1, end - begin - 1);
        }
    } else if (begins("--files-from=") && words.size() > 2) {
        task.kind = ChildTask::Kind::copying;
        task.url = words[words.size() - 2];
        task.destination = words.back();
    } else if (begins("--list-only")) {
        task.kind = ChildTask::Kind::listing;
        task.url = words.back();
    }
    return task;
}

/// What runs for one detector.
struct Running {
    int copyProcesses = 0;
    bool isListing = false;
};

/// Says of each detector what the daemon's children do for it. Where two detectors have the same
/// share and target, nothing tells their children apart: then they are nobody's.
std::map<std::string, Running> lookAtChildren(pid_t daemon,
                                              const std::vector<Detector>& detectors) {
    std::map<std::pair<std::string, std::string>, std::vector<std::string>> byPlaces;
    std::map<std::string, std::vector<std::string>> byUrl;
    for (const Detector& detector : detectors) {
        // As the daemon splits them: quotation marks are gone.
        const std::vector<std::string> words =
            UTILITIES::splitWords(detector.shareUrl + " " + detector.destination(), ' ');
        if (words.size() == 2) {
            byPlaces[{words[0], words[1]}].push_back(detector.id);
        }
        byUrl[detector.shareUrl].push_back(detector.id);
    }
    std::map<std::string, Running> running;
    for (const pid_t child : childrenOf(daemon)) {
        const ChildTask task = taskOf(commandLine(child));
        if (task.kind == ChildTask::Kind::copying) {
            const auto found = byPlaces.find({task.url, task.destination});
            if (found != byPlaces.end() && found->second.size() == 1) {
                ++running[found->second.front()].copyProcesses;
            }
        } else if (task.kind == ChildTask::Kind::listing) {
            const auto found = byUrl.find(task.url);
            if (found != byUrl.end() && found->second.size() == 1) {
                running[found->second.front()].isListing = true;
            }
        }
    }
    return running;
}

/// The daemon's working directory is "/".
std::string absolute(const std::string& path) {
    return path.empty() || path.front() != '/' ? "/" + path : path;
}

} // namespace

class SnapshotSource::State {
public:
    explicit State(SnapshotOptions chosen) : options(std::move(chosen)), files(secondsKept) {}

    Snapshot take();

private:
    void takeDaemon(Snapshot& snapshot);
    void takeConfiguration(Snapshot& snapshot);
    void readLog(Snapshot& snapshot);
    void takeDetectors(Snapshot& snapshot);
    void takeSpace(Snapshot& snapshot);
    void takeRates(Snapshot& snapshot);
    void takePipe(Snapshot& snapshot);

    SnapshotOptions options;
    double now = 0; // of a clock that does not jump

    DaemonProcesses processes;
    std::vector<std::string> startOptions; // of the last daemon that was seen running

    /// All that the configuration depends on.
    std::tuple<std::string, std::optional<Version>, std::vector<std::string>> loadedFrom;
    bool tried = false;
    std::optional<Configuration> configuration;
    std::string configProblem;

    std::optional<WatchedLog> log;
    std::string logPath;
    int logNumber = 0;

    RecentChanges changes;
    GrowingTotal copied;
    History files;
    FreeSpace space;
    std::map<std::string, History> freeHistory; // by target

    std::optional<PipeSnapshot> pipe;
    std::optional<Version> pipeVersion;
    double pipeDue = 0;
};

Snapshot SnapshotSource::State::take() {
    now = secondsOf(CLOCK_MONOTONIC);
    Snapshot snapshot;
    snapshot.time = secondsOf(CLOCK_REALTIME);
    takeDaemon(snapshot);
    takeConfiguration(snapshot);
    readLog(snapshot);
    takeDetectors(snapshot);
    takeSpace(snapshot);
    takeRates(snapshot);
    takePipe(snapshot);
    changes.note(snapshot);
    return snapshot;
}

void SnapshotSource::State::takeDaemon(Snapshot& snapshot) {
    processes = findDaemon(options.daemonPath);
    snapshot.daemonState = processes.state;
    snapshot.daemonText = processes.text;
    snapshot.processLimit = readStatusFile();
    if (processes.state == Snapshot::DaemonState::running) {
        startOptions = processes.startOptions;
        snapshot.pid = processes.pid();
        if (processes.upSince) {
            // It is as exact as the kernel's ticks; what lies behind that would change each time.
            snapshot.upSince = std::round(*processes.upSince * 100) / 100;
        }
        snapshot.startOptions = startOptions;
    }
}

void SnapshotSource::State::takeConfiguration(Snapshot& snapshot) {
    std::string path = options.configFile;
    if (path.empty()) {
        path = findConfigFile().value_or("");
    }
    double modified = 0;
    const std::optional<Version> version = versionOf(path, &modified);
    auto source = std::tuple(path, version, startOptions);
    if (!tried || source != loadedFrom || !configProblem.empty()) {
        tried = true;
        loadedFrom = std::move(source);
        configProblem.clear();
        if (path.empty()) {
            configProblem = "there is no configuration file (" + configFilePaths().front() +
                            " or " + configFilePaths().back() + ")";
        } else {
            LoadedConfiguration loaded = loadConfiguration(path, startOptions);
            if (!loaded.configuration) {
                // It was changed since the daemon accepted these options, or can't be read.
                configProblem = loaded.problem;
                loaded = loadConfiguration(path, {});
            }
            if (loaded.configuration) {
                configuration = std::move(loaded.configuration);
            }
        }
    }
    snapshot.configFile = path;
    snapshot.configProblem = configProblem;
    snapshot.configChanged =
        version && snapshot.upSince && modified > *snapshot.upSince + clockTolerance;
}

void SnapshotSource::State::readLog(Snapshot& snapshot) {
    LogSnapshot& shown = snapshot.log;
    if (!configuration) {
        shown.problem = "without a configuration it is not known where the log is";
        return;
    }
    shown.path = absolute(configuration->logFileName);
    shown.limit = configuration->logFileMaxSize;
    if (!log || shown.path != logPath || configuration->logFileMaxNumber != logNumber) {
        logPath = shown.path;
        logNumber = configuration->logFileMaxNumber;
        log.emplace(logPath, logNumber);
    }
    std::vector<std::string> ids;
    for (const Detector& detector : configuration->detectors) {
        ids.push_back(detector.id);
    }
    LogModel& model = log->model;
    model.setDetectors(ids, configProblem.empty() && !snapshot.configChanged);
    log->follower.poll(log->sink);

    shown.problem = log->follower.problem();
    shown.started = model.started();
    shown.rotations = log->follower.rotations();
    shown.archives = countArchives(logPath, logNumber);
    struct stat status = {};
    if (stat(logPath.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
        shown.bytes = static_cast<std::uint64_t>(status.st_size);
    }
    if (!log->sink.tookAny()) {
        shown.coverage = LogCoverage::none;
        if (shown.problem.empty()) {
            shown.problem = "the log " + logPath + " is empty";
        }
    } else if (model.hasGap()) {
        shown.coverage = LogCoverage::withGap;
    } else {
        shown.coverage = model.starts() > 0 ? LogCoverage::sinceStart : LogCoverage::sinceOldest;
    }
    snapshot.total = model.total();
    snapshot.unattributed = model.unattributed();
    snapshot.undecided = model.undecided();
    snapshot.lastFile = model.lastFile();
    snapshot.lastComplaint = model.lastComplaint();
}

void SnapshotSource::State::takeDetectors(Snapshot& snapshot) {
    std::map<std::string, DetectorSnapshot> byId;
    std::map<std::string, Running> running;
    const bool isServed = snapshot.daemonState == Snapshot::DaemonState::running;
    if (configuration) {
        for (const Detector& detector : configuration->detectors) {
            DetectorSnapshot& shown = byId[detector.id];
            shown.shareUrl = detector.shareUrl;
            shown.target = detector.target;
        }
        if (isServed) {
            running = lookAtChildren(snapshot.pid, configuration->detectors);
        }
    }
    if (log) {
        // Also those that the daemon serves and that the configuration no longer names.
        for (const auto& [id, logged] : log->model.detectors()) {
            DetectorSnapshot& shown = byId[id];
            shown.counts = logged.counts;
            shown.lastFile = logged.lastFile;
            if (isServed && logged.copying) {
                shown.state = DetectorSnapshot::State::copying;
            }
        }
    }
    for (auto& [id, shown] : byId) {
        shown.id = id;
        if (isServed) {
            const Running& runs = running[id];
            shown.copyProcesses = runs.copyProcesses;
            if (runs.copyProcesses > 0) {
                shown.state = DetectorSnapshot::State::copying;
            } else if (runs.isListing) {
                shown.state = DetectorSnapshot::State::listing;
            } else if (shown.state == DetectorSnapshot::State::notServed) {
                shown.state = DetectorSnapshot::State::idle;
            }
        }
        snapshot.detectors.push_back(std::move(shown));
    }
}

void SnapshotSource::State::takeSpace(Snapshot& snapshot) {
    std::vector<std::string> targets;
    for (const DetectorSnapshot& detector : snapshot.detectors) {
        if (!detector.target.empty()) {
            targets.push_back(detector.target);
        }
    }
    const std::map<std::string, Space> found = space.ask(targets);
    for (DetectorSnapshot& detector : snapshot.detectors) {
        const auto entry = found.find(detector.target);
        if (entry == found.end()) {
            continue;
        }
        detector.freeBytes = entry->second.free;
        detector.totalBytes = entry->second.total;
        History& history = freeHistory.try_emplace(detector.target, secondsKept).first->second;
        history.add(now, static_cast<double>(entry->second.free));
        const std::optional<double> until =
            secondsUntilGone(static_cast<double>(entry->second.free),
                             history.slope(secondsKept, shortestForFilling));
        if (until && *until <= longestUntilFull) {
            detector.secondsUntilFull = until;
        }
    }
}

void SnapshotSource::State::takeRates(Snapshot& snapshot) {
    if (!log) {
        return;
    }
    files.add(now, copied.take(snapshot.total.files, log->model.starts()));
    snapshot.rates.lastSeconds = files.slope(shortWhile, shortestForRate);
    snapshot.rates.lastMinutes = files.slope(secondsKept, shortestForRate);
    snapshot.rates.history = files.changes(secondsOfHistory);
}

void SnapshotSource::State::takePipe(Snapshot& snapshot) {
    // Only whether it is the same pipe: each record changes its date.
    std::optional<Version> version = versionOf(GLOBAL::pathToVantrelFifo);
    if (version) {
        version = Version{std::get<0>(*version), std::get<1>(*version), 0, 0, 0};
    }
    if (!pipe || version != pipeVersion || now >= pipeDue) {
        const double before = secondsOf(CLOCK_THREAD_CPUTIME_ID);
        pipe = lookAtConsumerPipe();
        const double took = secondsOf(CLOCK_THREAD_CPUTIME_ID) - before;
        pipeVersion = version;
        pipeDue = now + std::min(took / partForPipe, oldestPipe);
    }
    snapshot.pipe = *pipe;
}

SnapshotSource::SnapshotSource(SnapshotOptions options)
    : state(std::make_unique<State>(std::move(options))) {
}

SnapshotSource::~SnapshotSource() = default;

Snapshot SnapshotSource::take() {
    return state->take();
}

} // namespace control
