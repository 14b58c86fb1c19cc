// Tells what changed from one look to the next, for the event journal.
#include "control/observe/event_watch.h"

#include "control/display_text.h"
#include "control/observe/verdict.h"

#include <utility>

namespace control {

namespace {

/// So long a condition has to be gone before it is over.
constexpr double goneFor = 5;

/// So often at most the same count is told.
constexpr double tellEvery = 60;

} // namespace

std::vector<std::string> EventWatch::changes(const Snapshot& snapshot) {
    std::vector<std::string> texts;
    if (!begun) {
        texts.emplace_back("skarnctl looks from here on");
    }
    noteDaemon(snapshot, texts);
    noteConditions(snapshot, texts);
    noteCounts(snapshot, texts);
    begun = true;
    return texts;
}

void EventWatch::noteDaemon(const Snapshot& snapshot, std::vector<std::string>& texts) {
    const pid_t present = snapshot.isServed() ? snapshot.pid : 0;
    // A clock that was set moves the time of the start: the number alone tells, but for one that
    // was given again within a second.
    if (snapshot.daemonState == DaemonState::unknown || (present == daemon && begun)) {
        return;
    }
    if (daemon != 0) {
        texts.push_back(std::string(daemonEnded) + " (process " + std::to_string(daemon) + ")");
    }
    if (present != 0) {
        texts.push_back((begun ? "the daemon started (process " : "the daemon runs (process ") +
                        std::to_string(present) + ")");
    } else if (!begun) {
        texts.emplace_back("no daemon runs");
    }
    daemon = present;
}

void EventWatch::noteConditions(const Snapshot& snapshot, std::vector<std::string>& texts) {
    for (const Verdict::Reason& reason : verdict(snapshot).reasons) {
        if (!reason.key.empty()) {
            const auto [entry, isNew] =
                conditions.try_emplace(reason.key, Condition{reason.text, snapshot.uptime, 0});
            entry->second.seen = snapshot.uptime;
            if (isNew) {
                texts.push_back(reason.text);
            }
        }
    }
    for (auto entry = conditions.begin(); entry != conditions.end();) {
        const Condition& condition = entry->second;
        if (snapshot.uptime - condition.seen < goneFor) {
            ++entry;
            continue;
        }
        texts.push_back("over after " + durationText(condition.seen - condition.since) + ": " +
                        condition.text);
        entry = conditions.erase(entry);
    }
}

void EventWatch::noteCounts(const Snapshot& snapshot, std::vector<std::string>& texts) {
    const Counts& counts = snapshot.counts;
    const std::pair<const char*, std::uint64_t> told[] = {
        {"files reported lost", counts.lost},
        {"files copied and not announced", counts.failedHandoffs},
        {"copy processes found no pipe and announced nothing", counts.withoutPipe},
        {"copy processes or listings could not be started",
         counts.failedStarts + counts.failedListings},
    };
    for (const auto& [what, counted] : told) {
        Tally& tally = tallies[what];
        if (counted < tally.counted || !begun) {
            tally = {counted, begun ? 0 : counted, tally.toldAt};
        }
        tally.counted = counted;
        if (tally.counted > tally.told &&
            (tally.toldAt == 0 || snapshot.uptime - tally.toldAt >= tellEvery)) {
            texts.push_back(grouped(tally.counted - tally.told) + " " + what);
            tally.told = tally.counted;
            tally.toldAt = snapshot.uptime;
        }
    }
}

} // namespace control
