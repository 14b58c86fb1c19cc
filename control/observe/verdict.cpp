// Whether the daemon keeps up, in one line, and why not: what is read first at night.
#include "control/observe/verdict.h"

#include "control/observe/display_text.h"

#include <algorithm>
#include <map>
#include <utility>

namespace control {

namespace {

using Level = Verdict::Level;

constexpr double fresh = 300;                        // seconds for which a fault counts as present
constexpr double soon = 3600;                        // seconds until a target is full
constexpr double later = 24 * 3600.0;                // the same
constexpr std::uint64_t nothingLeft = 1024 * 1024UL; // bytes: a target with less is full
constexpr double patience = 60; // seconds for which copy processes may run without a report
constexpr std::uint64_t enoughReports = 2; // ended without a file: no mere chance any more
constexpr double enoughSeconds = 10;       // the same

/// Collects reasons; within one level they stay in the order in which they were given.
class Reasons {
public:
    void add(Level level, std::string reason) { found.emplace_back(level, std::move(reason)); }

    Verdict verdict() {
        std::stable_sort(found.begin(), found.end(), [](const auto& one, const auto& other) {
            return one.first > other.first;
        });
        Verdict result;
        for (auto& [level, reason] : found) {
            result.level = std::max(result.level, level);
            result.reasons.push_back(std::move(reason));
        }
        return result;
    }

private:
    std::vector<std::pair<Level, std::string>> found;
};

std::string count(std::uint64_t number, const std::string& one, const std::string& several) {
    return grouped(number) + " " + (number == 1 ? one : several);
}

std::string withoutFullStop(std::string text) {
    while (!text.empty() && (text.back() == '.' || text.back() == '\n')) {
        text.pop_back();
    }
    return text;
}

std::string orElse(const std::string& text, const std::string& instead) {
    return text.empty() ? instead : withoutFullStop(text);
}

bool isFresh(const std::optional<double>& ago) {
    return ago && *ago <= fresh;
}

/// ", the last one 12 s ago"; empty if it is not known when it was.
std::string when(const std::optional<double>& ago) {
    return ago ? ", the last one " + durationText(*ago) + " ago" : "";
}

void judgeDaemon(const Snapshot& snapshot, Reasons& reasons) {
    switch (snapshot.daemonState) {
    case Snapshot::DaemonState::running:
        break;
    case Snapshot::DaemonState::dead:
        reasons.add(Level::down, orElse(snapshot.daemonText, "the daemon is dead"));
        break;
    case Snapshot::DaemonState::notRunning:
        reasons.add(Level::down, orElse(snapshot.daemonText, "no daemon runs"));
        break;
    case Snapshot::DaemonState::unknown:
        reasons.add(Level::cannotTell,
                    orElse(snapshot.daemonText, "it is not known whether a daemon runs"));
        break;
    }
}

void judgePipe(const Snapshot& snapshot, Reasons& reasons) {
    const std::string& path = snapshot.pipe.path;
    switch (snapshot.pipe.state) {
    case PipeSnapshot::State::noReader:
        reasons.add(Level::notKeepingUp, "nobody reads the pipe " + path +
                                             ", so copying stands still until somebody does");
        break;
    case PipeSnapshot::State::absent:
        reasons.add(Level::notKeepingUp,
                    "there is no pipe " + path + ", so files are copied and announced to nobody");
        break;
    case PipeSnapshot::State::notAPipe:
        reasons.add(Level::notKeepingUp,
                    "what stands at " + path + " is no pipe, so files are announced to nobody");
        break;
    case PipeSnapshot::State::unknown:
        reasons.add(Level::attention, "whether somebody reads the pipe can't be seen");
        break;
    case PipeSnapshot::State::read:
        break;
    }
}

/// The detectors by the size and the free space of their targets: those that have both in common
/// share a file system, and one reason will do for them.
std::map<std::pair<std::uint64_t, std::uint64_t>, std::vector<const DetectorSnapshot*>>
byFileSystem(const Snapshot& snapshot) {
    std::map<std::pair<std::uint64_t, std::uint64_t>, std::vector<const DetectorSnapshot*>> found;
    for (const DetectorSnapshot& detector : snapshot.detectors) {
        if (detector.freeBytes) {
            found[{*detector.freeBytes, detector.totalBytes.value_or(0)}].push_back(&detector);
        }
    }
    return found;
}

void judgeTargets(const Snapshot& snapshot, bool running, Reasons& reasons) {
    for (const auto& [space, detectors] : byFileSystem(snapshot)) {
        std::string target = "the target of detector " + detectors.front()->id;
        if (detectors.size() > 1) {
            target += " (and of " + grouped(detectors.size() - 1) + " more)";
        }
        std::optional<double> left;
        for (const DetectorSnapshot* const detector : detectors) {
            if (detector->secondsUntilFull) {
                left = std::min(left.value_or(*detector->secondsUntilFull),
                                *detector->secondsUntilFull);
            }
        }
        if (space.first < nothingLeft) {
            reasons.add(Level::notKeepingUp, target + " is full");
        } else if (running && left && *left <= later) {
            reasons.add(*left <= soon ? Level::notKeepingUp : Level::attention,
                        target + " is full in " + durationText(*left));
        }
    }
}

void judgeProgress(const Snapshot& snapshot, Reasons& reasons) {
    const Recent& recent = snapshot.recent;
    if (!recent.fruitless) {
        return;
    }
    if (recent.fruitlessReports >= enoughReports && *recent.fruitless >= enoughSeconds) {
        reasons.add(Level::notKeepingUp,
                    grouped(recent.fruitlessReports) + " copy processes ended in the last " +
                        durationText(*recent.fruitless) + ", and no file was confirmed");
    } else if (*recent.fruitless >= patience) {
        reasons.add(Level::attention, "copy processes run, but none has confirmed a file for " +
                                          durationText(*recent.fruitless) +
                                          " (files count when their copy process has ended)");
    }
}

void judgeHandoff(const Snapshot& snapshot, Reasons& reasons) {
    const Counts& total = snapshot.total;
    if (total.failedHandoffs > 0) {
        reasons.add(isFresh(snapshot.recent.failedHandoff) ? Level::notKeepingUp : Level::attention,
                    count(total.failedHandoffs, "file was", "files were") +
                        " copied but could not be announced" + when(snapshot.recent.failedHandoff));
    }
    if (total.withoutPipe > 0 && snapshot.pipe.state != PipeSnapshot::State::absent) {
        reasons.add(Level::attention, count(total.withoutPipe, "copy process", "copy processes") +
                                          " found no pipe and announced nothing");
    }
}

void judgeLosses(const Snapshot& snapshot, Reasons& reasons) {
    if (snapshot.total.lost > 0) {
        reasons.add(isFresh(snapshot.recent.lost) ? Level::notKeepingUp : Level::attention,
                    count(snapshot.total.lost, "file was", "files were") + " reported lost" +
                        when(snapshot.recent.lost));
    }
}

void judgeStarts(const Snapshot& snapshot, Reasons& reasons) {
    const Counts& total = snapshot.total;
    if (total.failedStarts > 0) {
        reasons.add(Level::attention, count(total.failedStarts, "copy process", "copy processes") +
                                          " could not be started");
    }
    if (total.failedListings > 0) {
        reasons.add(Level::attention,
                    count(total.failedListings, "listing", "listings") + " could not be started");
    }
    if (isFresh(snapshot.recent.complaint)) {
        reasons.add(Level::attention,
                    "copy processes complain: " + withoutFullStop(snapshot.lastComplaint));
    }
    if (total.longRecords > 0) {
        reasons.add(Level::attention,
                    count(total.longRecords, "announcement was", "announcements were") +
                        " longer than the pipe passes in one piece");
    }
    if (total.failedRemovals > 0) {
        reasons.add(Level::attention, count(total.failedRemovals, "file list", "file lists") +
                                          " could not be removed");
    }
}

void judgeSources(const Snapshot& snapshot, bool running, Reasons& reasons) {
    switch (snapshot.log.coverage) {
    case LogCoverage::none:
        if (running) {
            reasons.add(Level::cannotTell,
                        orElse(snapshot.log.problem, "there is no log to read, so nothing that "
                                                     "the daemon did can be counted"));
        }
        break;
    case LogCoverage::sinceOldest:
        reasons.add(Level::attention,
                    "the log's beginning was rotated away, so the counts are too low");
        break;
    case LogCoverage::withGap:
        reasons.add(Level::attention,
                    "the log was rotated faster than it was read, so the counts are too low");
        break;
    case LogCoverage::sinceStart:
        break;
    }
    if (!snapshot.configProblem.empty()) {
        reasons.add(running ? Level::cannotTell : Level::attention,
                    withoutFullStop(snapshot.configProblem));
    } else if (snapshot.configChanged) {
        reasons.add(Level::attention,
                    "the configuration was changed after the daemon read it: restart it, or what "
                    "is shown may be wrong");
    }
}

} // namespace

std::string headline(Verdict::Level level) {
    switch (level) {
    case Level::keepingUp:
        return "KEEPING UP";
    case Level::attention:
        return "KEEPING UP, BUT";
    case Level::cannotTell:
        return "CAN'T TELL";
    case Level::notKeepingUp:
        return "NOT KEEPING UP";
    case Level::down:
        return "DOWN";
    }
    return "CAN'T TELL";
}

Verdict verdict(const Snapshot& snapshot) {
    Reasons reasons;
    const bool running = snapshot.daemonState == Snapshot::DaemonState::running;
    judgeDaemon(snapshot, reasons);
    if (running) {
        judgePipe(snapshot, reasons);
    }
    judgeTargets(snapshot, running, reasons);
    if (running) {
        judgeProgress(snapshot, reasons);
    }
    judgeHandoff(snapshot, reasons);
    judgeLosses(snapshot, reasons);
    judgeStarts(snapshot, reasons);
    judgeSources(snapshot, running, reasons);
    return reasons.verdict();
}

std::string sentence(const Verdict& verdict) {
    std::string text = headline(verdict.level);
    const char* separator = ": ";
    for (const std::string& reason : verdict.reasons) {
        text += separator + reason;
        separator = "; ";
    }
    return text;
}

} // namespace control
