// Looks at the daemon from outside, again and again, and says what it saw.
#include "control/observe/snapshot_source.h"

#include "control/control_files.h"
#include "control/file.h"
#include "control/process.h"
#include "daemon/global.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <string_view>

#include <sys/stat.h>
#include <sys/statvfs.h>

namespace control {

namespace {

constexpr double shortWhile = 10;
constexpr double shortestForRate = 1;
constexpr double shortestForFilling = 60;
constexpr int secondsOfHistory = 60;

/// Beyond that a target is not called filling.
constexpr double longestUntilFull = 365 * 86400.0;

/// The search for readers of the pipe goes through all open files of the machine. It may take this
/// part of the time, and be this old at most.
constexpr double partForPipe = 0.004;
constexpr double oldestPipe = 30;
constexpr std::chrono::milliseconds patienceForPipe(1000);

constexpr std::chrono::milliseconds patienceForSpace(200);
constexpr std::chrono::milliseconds patienceForRelay(1000);

/// So often it is asked which lost files have come, and of how many.
constexpr double lostPause = 5;
constexpr std::size_t mostLost = 500;
constexpr std::chrono::milliseconds patienceForLost(100);

/// The dates of the configuration file and of the banner, and the start of the daemon, come from
/// different clocks.
constexpr double clockTolerance = 1;
constexpr double bannerTolerance = 3;
constexpr double summerTime = 3600;

/// Whether the running daemon can have written a banner with this date. Looks anew, since a banner
/// that just came is that of a daemon that just started.
bool isDaemonsDate(const std::string& daemonPath, std::string_view date) {
    const DaemonProcesses found = findDaemon(daemonPath);
    std::tm parts = {};
    if (strptime(std::string(date).c_str(), "%a %b %e %H:%M:%S %Y", &parts) == nullptr) {
        return false;
    }
    if (!found.upSince) {
        return true;
    }
    parts.tm_isdst = -1;
    const double apart = std::abs(static_cast<double>(std::mktime(&parts)) - *found.upSince);
    return apart <= bannerTolerance || std::abs(apart - summerTime) <= bannerTolerance;
}

/// Those of these names of which a file is below one of the targets.
std::set<std::string> arrived(const std::vector<std::string>& names,
                              const std::vector<DetectorSnapshot>& detectors) {
    std::set<std::string> found;
    for (const std::string& name : names) {
        for (const DetectorSnapshot& detector : detectors) {
            if (modificationTime(detector.target + "/" + name)) {
                found.insert(name);
            }
        }
    }
    return found;
}

} // namespace

std::optional<Space> spaceAt(std::string path) {
    struct statvfs status = {};
    while (statvfs(path.c_str(), &status) != 0) {
        const std::size_t slash = path.rfind('/');
        if ((errno != ENOENT && errno != ENOTDIR) || slash == std::string::npos || path == "/") {
            return std::nullopt;
        }
        path.resize(slash == 0 ? 1 : slash);
    }
    const std::uint64_t block = status.f_frsize;
    return Space{status.f_bfree * block, status.f_blocks * block, status.f_ffree, status.f_files};
}

SnapshotSource::SnapshotSource(SnapshotOptions chosen)
    : options(std::move(chosen)), detectors(FIGURES_FOLDER) {
}

Snapshot SnapshotSource::look() {
    now = secondsOf(CLOCK_BOOTTIME);
    Snapshot snapshot;
    snapshot.time = secondsOf(CLOCK_REALTIME);
    snapshot.uptime = now;
    lookAtDaemon(snapshot);
    lookAtConfiguration(snapshot);
    lookAtEvents(snapshot);
    lookAtLog(snapshot);
    if (configuration) {
        detectors.look(configuration->detectors, snapshot.isServed() ? &processes.daemon : nullptr,
                       snapshot);
    }
    sumUp(snapshot);
    lookForLost(snapshot);
    lookAtSpace(snapshot);
    addRates(snapshot);
    lookAtPipe(snapshot);
    lookAtWaits(snapshot);
    const auto told = relay.ask([] { return lookAtRelay(relaySocket); }, patienceForRelay);
    snapshot.relay = told.value_or(std::nullopt);
    snapshot.relayIsSilent = !told;
    changes.note(snapshot);
    return snapshot;
}

void SnapshotSource::lookAtDaemon(Snapshot& snapshot) {
    processes = findDaemon(options.daemonPath);
    snapshot.daemonState = processes.state;
    snapshot.daemonText = processes.text;
    snapshot.processLimit = readStatusFile();
    if (snapshot.isServed()) {
        startOptions = processes.startOptions;
        snapshot.pid = processes.daemon.pid;
        if (processes.upSince) {
            // It is as exact as the kernel's ticks; what lies behind that would change each time.
            snapshot.upSince = std::round(*processes.upSince * 100) / 100;
        }
        snapshot.startOptions = startOptions;
    }
}

void SnapshotSource::lookAtConfiguration(Snapshot& snapshot) {
    std::string path = options.configFile;
    if (path.empty()) {
        path = findConfigFile().value_or("");
    }
    auto source = std::tuple(path, versionOf(path), startOptions);
    snapshot.configFile = path;
    snapshot.configChanged =
        snapshot.upSince && modificationTime(path).value_or(0) > *snapshot.upSince + clockTolerance;

    const std::uint64_t daemon = snapshot.isServed() ? processes.daemon.startTicks : 0;
    const bool isGood = configuration && configProblem.empty();
    if (snapshot.configChanged && daemon != 0 && daemon == loadedFor && isGood) {
        return; // what this daemon has read stays true when the file is changed
    }
    loadedFor = snapshot.configChanged ? 0 : daemon;
    if (source != loadedFrom || !isGood) {
        loadedFrom = std::move(source);
        LoadedConfiguration loaded = loadConfiguration(path, startOptions);
        configProblem = path.empty()
                            ? "there is no configuration file (" + configFilePaths().front() +
                                  " or " + configFilePaths().back() + ")"
                            : loaded.problem;
        if (!loaded.configuration) {
            // It was changed since the daemon accepted these options, or can't be read.
            loaded = loadConfiguration(path, {});
        }
        if (loaded.configuration) {
            configuration = std::move(loaded.configuration);
        }
    }
    snapshot.configProblem = configProblem;
}

void SnapshotSource::lookAtEvents(Snapshot& snapshot) {
    const std::optional<FileVersion> version = versionOf(eventJournalPath());
    if (version != eventsVersion) {
        eventsVersion = version;
        events = readEvents();
    }
    snapshot.deaths = deathsIn(events, snapshot.time);
}

void SnapshotSource::lookAtLog(Snapshot& snapshot) {
    LogSnapshot& shown = snapshot.log;
    if (!configuration) {
        shown.problem = "without a configuration it is not known where the log is";
        return;
    }
    const auto source = std::tuple(configuration->logFileName, configuration->logFileMaxNumber);
    if (!log || source != logSource) {
        const auto isBanner = [daemonPath = options.daemonPath](std::string_view date) {
            return isDaemonsDate(daemonPath, date);
        };
        logSource = source;
        model = std::make_shared<LogModel>(isBanner);
        log.emplace(configuration->logFileName, configuration->logFileMaxNumber, isBanner, model);
        account = {};
        lastLog = {};
    }
    isLogRead = log->poll();
    shown = lastLog;
    shown.path = log->absolutePath();
    shown.limit = configuration->logFileMaxSize;
    shown.problem = log->problem();
    shown.coverage = LogCoverage::none;
    if (isLogRead) {
        account = model->account();
        shown.started = account.started;
        shown.rotations = log->follower().rotations();
        shown.archives = log->follower().archives();
        shown.bytes = log->follower().bytes();
        lastLog = shown;
    }
    if (isLogRead && shown.problem.empty()) {
        shown.coverage = account.hasGap       ? LogCoverage::withGap
                         : account.starts > 0 ? LogCoverage::sinceStart
                                              : LogCoverage::sinceWatch;
    }
    snapshot.counts = account.counts;
    snapshot.lastComplaint = account.lastComplaint;
}

/// The copy program's figures count each file as it is announced, the log when its copy process has
/// ended.
void SnapshotSource::sumUp(Snapshot& snapshot) {
    snapshot.files = snapshot.counts.files;
    snapshot.lastFile = account.lastFile;
    if (!snapshot.hasFigures) {
        if (snapshot.log.coverage == LogCoverage::sinceStart) {
            snapshot.filesSince = snapshot.upSince;
        }
        return;
    }
    snapshot.files = 0;
    double newest = -1;
    for (const DetectorSnapshot& detector : snapshot.detectors) {
        if (!detector.figures) {
            continue;
        }
        const CopyFigures& figures = *detector.figures;
        snapshot.files += figures.files;
        snapshot.bytes += figures.bytes;
        snapshot.filesSince = std::min(snapshot.filesSince.value_or(figures.since), figures.since);
        if (figures.announcedAgo && (newest < 0 || *figures.announcedAgo < newest)) {
            newest = *figures.announcedAgo;
            snapshot.lastFile = figures.lastFile;
        }
    }
}

void SnapshotSource::lookForLost(Snapshot& snapshot) {
    if (isLogRead && !account.lost.empty() && now >= lostDue) {
        std::vector<std::string> names(account.lost.begin(), account.lost.end());
        names.resize(std::min(names.size(), mostLost));
        const auto found = lost.ask(
            [names, all = snapshot.detectors] { return arrived(names, all); }, patienceForLost);
        for (const std::string& name : found.value_or(std::set<std::string>())) {
            model->forgetLost(name);
            account.lost.erase(name);
        }
        lostDue = now + lostPause;
    }
    snapshot.missing = account.lost.size();
}

void SnapshotSource::lookAtSpace(Snapshot& snapshot) {
    for (DetectorSnapshot& detector : snapshot.detectors) {
        if (detector.target.empty()) {
            continue;
        }
        const auto answer = spaces[detector.target].ask(
            [target = detector.target] { return spaceAt(target); }, patienceForSpace);
        detector.targetIsSilent = !answer;
        const std::optional<Space> found = answer.value_or(std::nullopt);
        if (!found) {
            continue;
        }
        detector.freeBytes = found->free;
        detector.totalBytes = found->total;
        if (found->totalInodes > 0) {
            detector.freeInodes = found->freeInodes;
            detector.totalInodes = found->totalInodes;
        }
        const auto free = static_cast<double>(found->free);
        History& history = freeHistory.try_emplace(detector.target, secondsKept).first->second;
        history.add(now, free);
        const std::optional<double> until =
            secondsUntilGone(free, history.slope(secondsKept, shortestForFilling));
        if (until && *until <= longestUntilFull) {
            detector.secondsUntilFull = until;
        }
    }
}

void SnapshotSource::addRates(Snapshot& snapshot) {
    const std::uint64_t epoch = snapshot.hasFigures ? 0 : account.starts;
    files.add(now, counted.take(snapshot.files, epoch));
    snapshot.rates.lastSeconds = files.slope(shortWhile, shortestForRate);
    snapshot.rates.lastMinutes = files.slope(secondsKept, shortestForRate);
    snapshot.rates.history = files.changes(secondsOfHistory);
    if (snapshot.hasFigures) {
        bytes.add(now, static_cast<double>(snapshot.bytes));
        snapshot.rates.bytes = bytes.slope(shortWhile, shortestForRate);
    }
}

void SnapshotSource::lookAtPipe(Snapshot& snapshot) {
    const pid_t daemon = snapshot.pid;
    const auto subject = std::pair(daemon, fileIdOf(GLOBAL::pathToVantrelFifo));
    if (farSubject != subject || now >= farDue) {
        const auto question = [daemon, path = options.daemonPath] {
            FarLook look;
            const double before = secondsOf(CLOCK_THREAD_CPUTIME_ID);
            look.pipe = lookAtConsumerPipe(GLOBAL::pathToVantrelFifo);
            if (daemon != 0) {
                for (const Process& other : findDaemon(path, Search::always).unvouched) {
                    look.otherDaemons.push_back(other.pid);
                }
            }
            look.took = secondsOf(CLOCK_THREAD_CPUTIME_ID) - before;
            return look;
        };
        lastFar = far.ask(question, patienceForPipe).value_or(FarLook());
        farSubject = subject;
        farDue = now + std::min(lastFar.took / partForPipe, oldestPipe);
    }
    snapshot.pipe = lastFar.pipe;
    snapshot.pipe.path = GLOBAL::pathToVantrelFifo;
    snapshot.otherDaemons = lastFar.otherDaemons;
}

/// A thread that has gone to sleep as often as at the last look has not been woken since.
void SnapshotSource::lookAtWaits(Snapshot& snapshot) {
    const std::optional<std::vector<PipeWait>> found =
        snapshot.isServed() ? findPipeWaits(snapshot.pid) : std::nullopt;
    snapshot.waits.known = found.has_value();
    std::vector<std::pair<PipeWait, double>> seen;
    for (const PipeWait& wait : found.value_or(std::vector<PipeWait>())) {
        seen.emplace_back(wait, now);
        for (const auto& [before, since] : waits) {
            seen.back().second = before == wait ? since : seen.back().second;
        }
        std::optional<double>& longest =
            wait.opens ? snapshot.waits.opening : snapshot.waits.writing;
        longest = std::max(longest.value_or(0), now - seen.back().second);
    }
    waits = std::move(seen);
}

} // namespace control
