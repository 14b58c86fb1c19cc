// Whether the daemon keeps up, in one line, and why not: what is read first at night.
#include "control/observe/verdict.h"

#include "control/display_text.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <tuple>
#include <utility>

namespace control {

namespace {

using Level = Verdict::Level;

constexpr double fresh = 300;         // seconds for which what just happened is told
constexpr double freshComplaint = 60; // the same of a complaint
constexpr double freshDeath = 600;    // the same of a death of the daemon
constexpr double soon = 3600;         // seconds until a target is full
constexpr double roomy = 0.2;         // part of a target: with more, "full soon" is only a guess
constexpr double tight = 0.02;        // part of a target: with less, it is nearly full
constexpr std::uint64_t nothingLeft = 1024 * 1024UL; // bytes: a target with less is full
constexpr std::uint64_t fewInodes = 16;              // the same
constexpr double waitProves = 1.5; // seconds: nobody reads who has not read for so long
constexpr double patience = 60;    // seconds for which copy processes may run without a report
constexpr std::uint64_t enoughReports = 2; // ended without a file: no mere chance any more
constexpr double enoughSeconds = 10;       // the same

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

/// ", the last one 12 s ago"
std::string when(const std::optional<double>& ago) {
    return ", the last one " + durationText(ago.value_or(0)) + " ago";
}

/// "03:12", or with the date if it was not today.
std::string clockTime(double moment, double now) {
    const char* const day = "%Y-%m-%d";
    return localTime(moment, day) == localTime(now, day) ? localTime(moment, "%H:%M")
                                                         : localTime(moment, "%Y-%m-%d %H:%M");
}

/// Judges one snapshot. Within one level reasons stay in the order in which they are given.
class Judge {
public:
    explicit Judge(const Snapshot& aSnapshot) : snapshot(aSnapshot) {}

    Verdict judge() {
        judgeDaemon();
        if (snapshot.isServed()) {
            judgeDetectors();
            judgePipe();
        }
        judgeTargets();
        if (snapshot.isServed()) {
            judgeProgress();
        }
        judgeHistory();
        judgeSources();
        std::stable_sort(
            result.reasons.begin(), result.reasons.end(),
            [](const auto& one, const auto& other) { return one.level > other.level; });
        if (!result.reasons.empty()) {
            result.level = result.reasons.front().level;
        }
        return std::move(result);
    }

private:
    void add(Level level, std::string text, std::string key = {}) {
        result.reasons.push_back({level, std::move(text), std::move(key)});
    }

    void judgeDaemon() {
        const std::string& text = snapshot.daemonText;
        switch (snapshot.daemonState) {
        case DaemonState::running:
            break;
        case DaemonState::seemsToRun:
            add(Level::attention, orElse(text, "only root can be sure that the daemon runs"));
            break;
        case DaemonState::dead:
            add(Level::down, orElse(text, "the daemon is dead"));
            break;
        case DaemonState::notRunning:
            add(Level::down, orElse(text, "no daemon runs"));
            break;
        case DaemonState::unknown:
            add(Level::cannotTell, orElse(text, "it is not known whether a daemon runs"), "daemon");
            break;
        }
        if (!snapshot.otherDaemons.empty()) {
            std::string others;
            for (const pid_t pid : snapshot.otherDaemons) {
                others.append(others.empty() ? "" : ", ").append(std::to_string(pid));
            }
            add(Level::notKeepingUp,
                "another daemon runs beside it (process " + others +
                    "), so files are announced twice: end one of them",
                "two daemons");
        }
        const Deaths& deaths = snapshot.deaths;
        if (deaths.lastDay == 0) {
            return;
        }
        const double last = deaths.last.value_or(0);
        const std::string how = deaths.how.empty() ? "" : " by " + deaths.how;
        result.note = "the daemon died " +
                      count(static_cast<std::uint64_t>(deaths.lastDay), "time", "times") +
                      " in the last 24 h, the last time at " + clockTime(last, snapshot.time) + how;
        if (snapshot.isServed() && snapshot.time - last < freshDeath) {
            add(Level::attention, std::exchange(result.note, {}));
        }
    }

    void judgeDetectors() {
        for (const DetectorSnapshot& each : snapshot.detectors) {
            judgeDetector(each);
        }
        if (!snapshot.listingComplaint.empty()) {
            add(Level::notKeepingUp,
                "a listing fails, it is not known of which detector: " +
                    withoutFullStop(snapshot.listingComplaint),
                "listing");
        }
    }

    void judgeDetector(const DetectorSnapshot& each) {
        using State = DetectorSnapshot::State;
        const std::string name = "detector " + each.id + " (" + each.remoteIp + ")";
        const std::string key = "detector " + each.id;
        if (each.state == State::unreachable) {
            const std::string since =
                each.failingSince ? " since " + clockTime(*each.failingSince, snapshot.time) : "";
            add(Level::notKeepingUp,
                name + " can't be listed" + since + ": " + withoutFullStop(each.complaint), key);
        } else if (each.state == State::hanging && each.preparing) {
            add(Level::notKeepingUp,
                "the target of " + name + ", " + each.target + ", has not answered for " +
                    durationText(each.noAnswer.value_or(0)),
                key);
        } else if (each.state == State::hanging) {
            add(Level::notKeepingUp,
                "the listing of " + name + " has had no answer for " +
                    durationText(each.noAnswer.value_or(0)),
                key);
        } else if (!each.complaint.empty()) {
            add(Level::attention,
                "the listing of " + name + " complains: " + withoutFullStop(each.complaint), key);
        }
    }

    void judgePipe() {
        const PipeSnapshot& pipe = snapshot.pipe;
        const bool full = snapshot.waits.writing.value_or(0) >= waitProves;
        const bool opening = snapshot.waits.opening.value_or(0) >= waitProves;
        if (full) {
            std::string who;
            for (const std::string& reader : pipe.readers) {
                who += (who.empty() ? "" : ", ") + reader;
            }
            add(Level::notKeepingUp,
                orElse(who, "the consumer") + " holds the pipe open and has read nothing for " +
                    durationText(*snapshot.waits.writing) + ": copying stands still",
                "consumer");
        }
        if (opening && pipe.state != PipeSnapshot::State::noReader &&
            pipe.state != PipeSnapshot::State::unknown) {
            add(Level::notKeepingUp,
                "a copy waits for a reader of a pipe that was removed: restart the daemon",
                "removed pipe");
        }
        switch (pipe.state) {
        case PipeSnapshot::State::noReader:
            add(Level::notKeepingUp,
                "nobody reads the pipe " + pipe.path +
                    ", so copying stands still until somebody does",
                "pipe");
            break;
        case PipeSnapshot::State::absent:
            add(Level::notKeepingUp,
                "there is no pipe " + pipe.path + ", so files are copied and announced to nobody",
                "pipe");
            break;
        case PipeSnapshot::State::notAPipe:
            add(Level::notKeepingUp,
                "what stands at " + pipe.path + " is no pipe, so files are announced to nobody",
                "pipe");
            break;
        case PipeSnapshot::State::unknown:
            add(Level::attention, "whether somebody reads the pipe can't be seen");
            break;
        case PipeSnapshot::State::read:
            break;
        }
    }

    /// Detectors whose targets have the same figures share a file system, and one reason will do.
    void judgeTargets() {
        std::map<std::tuple<std::uint64_t, std::uint64_t, std::uint64_t>,
                 std::vector<const DetectorSnapshot*>>
            fileSystems;
        for (const DetectorSnapshot& each : snapshot.detectors) {
            if (each.targetIsSilent) {
                add(snapshot.isServed() ? Level::notKeepingUp : Level::attention,
                    "the file system of detector " + each.id + "'s target " + each.target +
                        " does not answer",
                    "target " + each.id);
            } else if (each.freeBytes) {
                fileSystems[{*each.freeBytes, each.totalBytes.value_or(0),
                             each.freeInodes.value_or(UINT64_MAX)}]
                    .push_back(&each);
            }
        }
        for (const auto& [figures, detectors] : fileSystems) {
            judgeFileSystem(detectors);
        }
    }

    void judgeFileSystem(const std::vector<const DetectorSnapshot*>& detectors) {
        const DetectorSnapshot& first = *detectors.front();
        std::string target = "the target of detector " + first.id;
        const std::string key = "target " + first.id;
        if (detectors.size() > 1) {
            target += " (and of " + grouped(detectors.size() - 1) + " more)";
        }
        const double total = static_cast<double>(first.totalBytes.value_or(0));
        const double free = total > 0 ? static_cast<double>(*first.freeBytes) / total : 1;
        const double inodes =
            first.freeInodes && first.totalInodes && *first.totalInodes > 0
                ? static_cast<double>(*first.freeInodes) / static_cast<double>(*first.totalInodes)
                : 1;
        std::optional<double> left;
        for (const DetectorSnapshot* const each : detectors) {
            if (each->secondsUntilFull) {
                left = std::min(left.value_or(*each->secondsUntilFull), *each->secondsUntilFull);
            }
        }
        if (*first.freeBytes < nothingLeft) {
            add(Level::notKeepingUp, target + " is full: no space left on device", key);
        } else if (inodes < 1 && *first.freeInodes < fewInodes) {
            add(Level::notKeepingUp, target + " has no free inodes: no further file can be made",
                key);
        } else if (free < tight) {
            add(Level::attention, target + " is nearly full: " + byteText(*first.freeBytes), key);
        } else if (inodes < tight) {
            add(Level::attention, target + " has few free inodes: " + grouped(*first.freeInodes),
                key);
        } else if (snapshot.isServed() && left && *left <= soon && free < roomy) {
            add(Level::attention, target + " is full in " + durationText(*left), key);
        }
    }

    void judgeProgress() {
        const Recent& recent = snapshot.recent;
        if (!recent.fruitless) {
            return;
        }
        if (recent.fruitlessReports >= enoughReports && *recent.fruitless >= enoughSeconds) {
            add(Level::notKeepingUp,
                grouped(recent.fruitlessReports) + " copy processes ended in the last " +
                    durationText(*recent.fruitless) + ", and no file was confirmed",
                "fruitless");
        } else if (*recent.fruitless >= patience) {
            add(Level::attention, "copy processes run, but none has confirmed a file for " +
                                      durationText(*recent.fruitless));
        }
    }

    /// What happened just now, and is told for some minutes.
    void judgeHistory() {
        const Recent& recent = snapshot.recent;
        const Counts& counts = snapshot.counts;
        const auto isFresh = [](const std::optional<double>& ago, double limit = fresh) {
            return ago && *ago <= limit;
        };
        if (isFresh(recent.failedHandoff)) {
            add(Level::notKeepingUp, count(counts.failedHandoffs, "file was", "files were") +
                                         " copied but could not be announced" +
                                         when(recent.failedHandoff) +
                                         " (skarnctl unannounced names them)");
        }
        if (isFresh(recent.withoutPipe) && snapshot.pipe.state != PipeSnapshot::State::absent) {
            add(Level::attention, count(counts.withoutPipe, "copy process", "copy processes") +
                                      " found no pipe and announced nothing" +
                                      when(recent.withoutPipe));
        }
        if (isFresh(recent.lost) && snapshot.missing > 0) {
            add(Level::attention, count(snapshot.missing, "file was", "files were") +
                                      " sent and not confirmed" + when(recent.lost));
        }
        if (isFresh(recent.failedStart)) {
            add(Level::attention,
                "copy processes or listings could not be started" + when(recent.failedStart));
        }
        if (isFresh(recent.complaint, freshComplaint)) {
            add(Level::attention,
                "copy processes complain: " + withoutFullStop(snapshot.lastComplaint));
        }
    }

    void judgeSources() {
        const bool running = snapshot.isServed();
        if (running && snapshot.log.coverage == LogCoverage::none) {
            add(snapshot.hasFigures ? Level::attention : Level::cannotTell,
                orElse(snapshot.log.problem,
                       "there is no log to read, so what the daemon did can't be counted"));
        }
        if (!snapshot.configProblem.empty()) {
            add(running ? Level::cannotTell : Level::attention,
                withoutFullStop(snapshot.configProblem), "configuration");
        } else if (snapshot.configChanged) {
            add(Level::attention,
                "the configuration was changed after the daemon read it: restart it, or what "
                "is shown may be wrong",
                "configuration");
        }
    }

    const Snapshot& snapshot;
    Verdict result;
};

} // namespace

std::string headline(Verdict::Level level) {
    static const std::vector<const char*> words{"KEEPING UP", "KEEPING UP, BUT", "CAN'T TELL",
                                                "NOT KEEPING UP", "DOWN"};
    return words.at(static_cast<std::size_t>(level));
}

Verdict verdict(const Snapshot& snapshot) {
    return Judge(snapshot).judge();
}

} // namespace control
