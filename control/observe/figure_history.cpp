// How figures move from look to look: how fast, and which of them rose when.
#include "control/observe/figure_history.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace control {

namespace {

/// More samples than this are not kept, however fast they come.
constexpr std::size_t mostSamples = 4096;

// After so long without a copy process nothing is being tried any more: the shares are empty.
constexpr double quietAfter = 30; // seconds

} // namespace

void History::add(double time, double value) {
    samples.erase(samples.lower_bound(time), samples.end());
    samples.emplace(time, value);
    // The second one may be old enough to be the beginning of what is kept.
    while (samples.size() > 2 &&
           (std::next(samples.begin())->first <= time - kept || samples.size() > mostSamples)) {
        samples.erase(samples.begin());
    }
}

double History::at(double time) const {
    const auto after = samples.lower_bound(time);
    if (after == samples.end() || after == samples.begin()) {
        return after == samples.end() ? samples.rbegin()->second : after->second;
    }
    const auto before = std::prev(after);
    return before->second + (after->second - before->second) * (time - before->first) /
                                (after->first - before->first);
}

std::optional<double> History::slope(double seconds, double atLeast) const {
    if (samples.empty()) {
        return std::nullopt;
    }
    const auto& [end, last] = *samples.rbegin();
    const double begin = std::max(end - seconds, samples.begin()->first);
    return end > begin && end - begin >= atLeast ? std::optional((last - at(begin)) / (end - begin))
                                                 : std::nullopt;
}

std::vector<double> History::changes(int count) const {
    std::vector<double> found;
    if (samples.empty()) {
        return found;
    }
    const double end = std::floor(samples.rbegin()->first);
    const double begin = std::max(std::ceil(samples.begin()->first), end - count);
    const int seconds = static_cast<int>(end - begin);
    for (int second = 0; second < seconds; ++second) {
        found.push_back(at(begin + second + 1) - at(begin + second));
    }
    return found;
}

double GrowingTotal::take(unsigned long long count, unsigned long long epoch) {
    if (begun) {
        const bool anew = epoch != lastEpoch || count < lastCount;
        sum += static_cast<double>(anew ? count : count - lastCount);
    }
    begun = true;
    lastCount = count;
    lastEpoch = epoch;
    return sum;
}

std::optional<double> secondsUntilGone(double free, std::optional<double> slope) {
    return slope && *slope < 0 ? std::optional(free / -*slope) : std::nullopt;
}

void RecentChanges::note(Snapshot& snapshot) {
    const double now = snapshot.uptime;
    const Counts& counts = snapshot.counts;
    if (!before) {
        began = now;
        before = {counts, snapshot.files};
    }
    if (snapshot.files < before->files || counts.processes < before->counts.processes ||
        counts.reports < before->counts.reports || counts.lost < before->counts.lost) {
        // A daemon that was started again counts from nothing. What happened before is over.
        before = {{}, snapshot.hasFigures ? snapshot.files : 0};
        moments = {};
        busyAt = 0;
    }
    const Counts& old = before->counts;
    const bool cameFiles = snapshot.files > before->files;
    const auto noteIf = [now](bool happened, std::optional<double>& moment) {
        moment = happened ? std::optional(now) : moment;
    };
    noteIf(cameFiles, moments.file);
    noteIf(counts.lost > old.lost, moments.lost);
    noteIf(counts.failedHandoffs > old.failedHandoffs, moments.failedHandoff);
    noteIf(counts.withoutPipe > old.withoutPipe, moments.withoutPipe);
    noteIf(counts.failedStarts + counts.failedListings > old.failedStarts + old.failedListings,
           moments.failedStart);
    noteIf(counts.complaints > old.complaints, moments.complaint);

    const bool isBusy = counts.processes > old.processes ||
                        std::any_of(snapshot.detectors.begin(), snapshot.detectors.end(),
                                    [](const auto& each) { return each.copyProcesses > 0; });
    busyAt = isBusy ? now : busyAt;
    if (cameFiles || now - busyAt > quietAfter || !snapshot.isServed()) {
        moments.fruitless.reset();
        moments.fruitlessReports = 0;
    } else if (isBusy && !moments.fruitless) {
        moments.fruitless = now;
    }
    if (moments.fruitless && counts.reports > old.reports) {
        moments.fruitlessReports += counts.reports - old.reports;
    }

    snapshot.recent = moments;
    snapshot.recent.watched = std::max(0.0, now - began);
    for (const auto moment :
         {&Recent::file, &Recent::lost, &Recent::failedHandoff, &Recent::withoutPipe,
          &Recent::failedStart, &Recent::complaint, &Recent::fruitless}) {
        if (std::optional<double>& ago = snapshot.recent.*moment) {
            *ago = std::max(0.0, now - *ago);
        }
    }
    before = {counts, snapshot.files};
}

} // namespace control
