// Whether the daemon keeps up, in one line, and why not: what is read first at night.
#include "control/observe/verdict.h"

#include "control/display_text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <tuple>
#include <utility>

namespace control {

namespace {

using Level = Verdict::Level;
using Pipe = PipeSnapshot::State;
constexpr Level grave = Level::notKeepingUp;
constexpr Level notable = Level::attention;

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

/// What is said if the condition holds.
struct Rule {
    bool holds;
    Level level;
    std::string text;
    std::string key = {};
};

std::string count(std::uint64_t number, const std::string& one, const std::string& several) {
    return grouped(number) + " " + (number == 1 ? one : several);
}

std::string seconds(const std::optional<double>& number) {
    return durationText(number.value_or(0));
}

std::string withoutFullStop(std::string text) {
    return text.erase(text.find_last_not_of(".\n") + 1);
}

std::string orElse(const std::string& text, const std::string& instead) {
    return text.empty() ? instead : withoutFullStop(text);
}

std::string theLast(const std::optional<double>& ago) {
    return ", the last one " + seconds(ago) + " ago";
}

bool isFresh(const std::optional<double>& ago, double limit = fresh) {
    return ago && *ago <= limit;
}

/// "03:12", or with the date if it was not today.
std::string clockTime(double moment, double now) {
    const char* const day = "%Y-%m-%d";
    return localTime(moment,
                     localTime(moment, day) == localTime(now, day) ? "%H:%M" : "%Y-%m-%d %H:%M");
}

std::string deathsText(const Deaths& deaths, double now) {
    return deaths.lastDay == 0
               ? ""
               : "the daemon died " +
                     count(static_cast<std::uint64_t>(deaths.lastDay), "time", "times") +
                     " in the last 24 h, the last time at " +
                     clockTime(deaths.last.value_or(0), now) +
                     (deaths.how.empty() ? "" : " by " + deaths.how);
}

std::vector<Rule> daemonRules(const Snapshot& now) {
    const DaemonState state = now.daemonState;
    const auto say = [&now](const char* instead) { return orElse(now.daemonText, instead); };
    std::string others;
    for (const pid_t pid : now.otherDaemons) {
        others += (others.empty() ? "" : ", ") + std::to_string(pid);
    }
    return {
        {state == DaemonState::seemsToRun, notable,
         say("only root can be sure that the daemon runs")},
        {state == DaemonState::dead, Level::down, say("the daemon is dead")},
        {state == DaemonState::notRunning, Level::down, say("no daemon runs")},
        {state == DaemonState::unknown, Level::cannotTell,
         say("it is not known whether a daemon runs"), "daemon"},
        {!others.empty(), grave,
         "another daemon runs beside it (process " + others +
             "), so files are announced twice: end one of them",
         "two daemons"},
    };
}

std::vector<Rule> detectorRules(const DetectorSnapshot& detector, double now) {
    using State = DetectorSnapshot::State;
    const std::string name = "detector " + detector.id + " (" + detector.remoteIp + ")";
    const std::string key = "detector " + detector.id;
    const std::string complaint = withoutFullStop(detector.complaint);
    const bool unreachable = detector.state == State::unreachable;
    const bool hanging = detector.state == State::hanging;
    const std::string since =
        detector.failingSince ? " since " + clockTime(*detector.failingSince, now) : "";
    return {
        {unreachable, grave, name + " can't be listed" + since + ": " + complaint, key},
        {hanging && detector.preparing, grave,
         "the target of " + name + ", " + detector.target + ", has not answered for " +
             seconds(detector.noAnswer),
         key},
        {hanging && !detector.preparing, grave,
         "the listing of " + name + " has had no answer for " + seconds(detector.noAnswer), key},
        {!unreachable && !hanging && !complaint.empty(), notable,
         "the listing of " + name + " complains: " + complaint, key},
    };
}

std::vector<Rule> pipeRules(const Snapshot& now) {
    const PipeSnapshot& pipe = now.pipe;
    return {
        {!now.listingComplaint.empty(), grave,
         "a listing fails, it is not known of which detector: " +
             withoutFullStop(now.listingComplaint),
         "listing"},
        {now.waits.writing.value_or(0) >= waitProves, grave,
         orElse(joined(pipe.readers, ", "), "the consumer") +
             " holds the pipe open and has read nothing for " + seconds(now.waits.writing) +
             ": copying stands still",
         "consumer"},
        {now.waits.opening.value_or(0) >= waitProves && pipe.state != Pipe::noReader &&
             pipe.state != Pipe::unknown,
         grave, "a copy waits for a reader of a pipe that was removed: restart the daemon",
         "removed pipe"},
        {pipe.state == Pipe::noReader, grave,
         "nobody reads the pipe " + pipe.path + ", so copying stands still until somebody does",
         "pipe"},
        {pipe.state == Pipe::absent, grave,
         "there is no pipe " + pipe.path + ", so files are copied and announced to nobody", "pipe"},
        {pipe.state == Pipe::notAPipe, grave,
         "what stands at " + pipe.path + " is no pipe, so files are announced to nobody", "pipe"},
        {pipe.state == Pipe::unknown, notable, "whether somebody reads the pipe can't be seen"},
    };
}

std::vector<Rule> relayRules(const RelaySnapshot& relay) {
    std::vector<Rule> rules{
        {!relay.problem.empty(), grave,
         "the relay takes nothing out of the pipe: " + withoutFullStop(relay.problem), "relay"}};
    for (const RelaySubscriber& each : relay.subscribers) {
        rules.push_back({!each.problem.empty(), notable,
                         "the relay's subscriber " + each.name + " is " + grouped(each.lag) +
                             " records behind: " + withoutFullStop(each.problem),
                         "subscriber " + each.name});
    }
    return rules;
}

/// Of a file system, by the detectors whose targets are there.
std::vector<Rule> targetRules(const std::vector<const DetectorSnapshot*>& detectors,
                              bool isServed) {
    const DetectorSnapshot& first = *detectors.front();
    const std::string key = "target " + first.id;
    const std::string target =
        "the target of detector " + first.id +
        (detectors.size() > 1 ? " (and of " + grouped(detectors.size() - 1) + " more)" : "");
    const auto partOf = [](std::optional<std::uint64_t> free, std::optional<std::uint64_t> total) {
        return free && total.value_or(0) > 0
                   ? static_cast<double>(*free) / static_cast<double>(*total)
                   : 1;
    };
    const std::uint64_t bytes = *first.freeBytes;
    const double free = partOf(bytes, first.totalBytes);
    const std::uint64_t inodes = first.freeInodes.value_or(0);
    const double freeInodes = partOf(first.freeInodes, first.totalInodes);
    double left = soon + 1;
    for (const DetectorSnapshot* const each : detectors) {
        left = std::min(left, each->secondsUntilFull.value_or(left));
    }
    return {
        {bytes < nothingLeft, grave, target + " is full: no space left on device", key},
        {freeInodes < 1 && inodes < fewInodes, grave,
         target + " has no free inodes: no further file can be made", key},
        {free < tight, notable, target + " is nearly full: " + byteText(bytes), key},
        {freeInodes < tight, notable, target + " has few free inodes: " + grouped(inodes), key},
        {isServed && left <= soon && free < roomy, notable,
         target + " is full in " + durationText(left), key},
    };
}

std::vector<Rule> otherRules(const Snapshot& now) {
    const Recent& recent = now.recent;
    const Counts& counts = now.counts;
    const bool runs = now.isServed();
    const double fruitless = runs ? recent.fruitless.value_or(0) : 0;
    const bool isProven = recent.fruitlessReports >= enoughReports && fruitless >= enoughSeconds;
    return {
        {isProven, grave,
         grouped(recent.fruitlessReports) + " copy processes ended in the last " +
             durationText(fruitless) + ", and no file was confirmed",
         "fruitless"},
        {fruitless >= patience && !isProven, notable,
         "copy processes run, but none has confirmed a file for " + durationText(fruitless)},
        {isFresh(recent.failedHandoff), grave,
         count(counts.failedHandoffs, "file was", "files were") +
             " copied but could not be announced" + theLast(recent.failedHandoff) +
             " (skarnctl unannounced names them)"},
        {isFresh(recent.withoutPipe) && now.pipe.state != Pipe::absent, notable,
         count(counts.withoutPipe, "copy process", "copy processes") +
             " found no pipe and announced nothing" + theLast(recent.withoutPipe)},
        {isFresh(recent.lost) && now.missing > 0, notable,
         count(now.missing, "file was", "files were") + " sent and not confirmed" +
             theLast(recent.lost)},
        {isFresh(recent.failedStart), notable,
         "copy processes or listings could not be started" + theLast(recent.failedStart)},
        {isFresh(recent.complaint, freshComplaint), notable,
         "copy processes complain: " + withoutFullStop(now.lastComplaint)},
        {runs && now.log.coverage == LogCoverage::none,
         now.hasFigures ? notable : Level::cannotTell,
         orElse(now.log.problem,
                "there is no log to read, so what the daemon did can't be counted")},
        {!now.configProblem.empty(), runs ? Level::cannotTell : notable,
         withoutFullStop(now.configProblem), "configuration"},
        {now.configProblem.empty() && now.configChanged, notable,
         "the configuration was changed after the daemon read it: restart it, or what is shown "
         "may be wrong",
         "configuration"},
    };
}

/// Notes what holds of these rules; `onlyFirst`: the first one alone.
void judge(std::vector<Rule> rules, Verdict& verdict, bool onlyFirst = false) {
    for (Rule& rule : rules) {
        if (rule.holds) {
            verdict.reasons.push_back({rule.level, std::move(rule.text), std::move(rule.key)});
            if (onlyFirst) {
                return;
            }
        }
    }
}

} // namespace

std::string headline(Verdict::Level level) {
    static constexpr std::array<const char*, 5> words{"KEEPING UP", "KEEPING UP, BUT", "CAN'T TELL",
                                                      "NOT KEEPING UP", "DOWN"};
    return words.at(static_cast<std::size_t>(level));
}

Verdict verdict(const Snapshot& snapshot) {
    const bool isServed = snapshot.isServed();
    Verdict result;
    judge(daemonRules(snapshot), result);
    const std::string died = deathsText(snapshot.deaths, snapshot.time);
    const bool justNow = isServed && snapshot.time - snapshot.deaths.last.value_or(0) < freshDeath;
    judge({{justNow && !died.empty(), notable, died}}, result);
    result.note = justNow ? "" : died;
    if (isServed) {
        for (const DetectorSnapshot& detector : snapshot.detectors) {
            judge(detectorRules(detector, snapshot.time), result);
        }
        judge(pipeRules(snapshot), result);
    }
    judge({{snapshot.relayIsSilent, notable, "the relay does not answer", "relay"}}, result);
    judge(snapshot.relay ? relayRules(*snapshot.relay) : std::vector<Rule>(), result);
    // Targets with the same figures share a file system, and one reason will do.
    std::map<std::tuple<std::uint64_t, std::uint64_t, std::uint64_t>,
             std::vector<const DetectorSnapshot*>>
        fileSystems;
    for (const DetectorSnapshot& each : snapshot.detectors) {
        judge({{each.targetIsSilent, isServed ? grave : notable,
                "the file system of detector " + each.id + "'s target " + each.target +
                    " does not answer",
                "target " + each.id}},
              result);
        if (!each.targetIsSilent && each.freeBytes) {
            fileSystems[{*each.freeBytes, each.totalBytes.value_or(0),
                         each.freeInodes.value_or(UINT64_MAX)}]
                .push_back(&each);
        }
    }
    for (const auto& [figures, detectors] : fileSystems) {
        judge(targetRules(detectors, isServed), result, true);
    }
    judge(otherRules(snapshot), result);
    std::vector<Verdict::Reason>& reasons = result.reasons;
    std::stable_sort(reasons.begin(), reasons.end(),
                     [](const auto& one, const auto& other) { return one.level > other.level; });
    result.level = reasons.empty() ? Level::keepingUp : reasons.front().level;
    return result;
}

} // namespace control
