// What changed from one snapshot to the next: tells a fault that lasts from one that is over.
#include "control/observe/recent_changes.h"

#include <algorithm>

namespace control {

namespace {

// After so long without a copy process nothing is being tried any more: the shares are empty.
constexpr double quietAfter = 30; // seconds

bool someCopyProcessRuns(const Snapshot& snapshot) {
    return std::any_of(snapshot.detectors.begin(), snapshot.detectors.end(),
                       [](const DetectorSnapshot& detector) { return detector.copyProcesses > 0; });
}

std::optional<double> since(std::optional<double> moment, double now) {
    return moment ? std::optional(std::max(0.0, now - *moment)) : std::nullopt;
}

} // namespace

void RecentChanges::note(Snapshot& snapshot) {
    const double now = snapshot.uptime;
    const Totals current{snapshot.counts, snapshot.files};
    if (!before) {
        began = now;
        before = current;
    }
    const Counts& counts = current.counts;
    if (current.files < before->files || counts.processes < before->counts.processes ||
        counts.reports < before->counts.reports || counts.lost < before->counts.lost) {
        // A daemon that was started again counts from nothing. What happened before is over.
        const double watchedSince = began;
        *this = RecentChanges{};
        began = watchedSince;
        before = Totals{{}, snapshot.hasFigures ? current.files : 0};
    }
    const Counts& old = before->counts;
    const auto noteIf = [now](bool happened, std::optional<double>& moment) {
        moment = happened ? std::optional(now) : moment;
    };
    noteIf(counts.lost > old.lost, moments.lost);
    noteIf(counts.failedHandoffs > old.failedHandoffs, moments.failedHandoff);
    noteIf(counts.withoutPipe > old.withoutPipe, moments.withoutPipe);
    noteIf(counts.failedStarts + counts.failedListings > old.failedStarts + old.failedListings,
           moments.failedStart);
    noteIf(counts.complaints > old.complaints, moments.complaint);
    noteIf(current.files > before->files, moments.file);

    const bool busy = someCopyProcessRuns(snapshot) || counts.processes > old.processes;
    busyAt = busy ? now : busyAt;
    if (current.files > before->files || now - busyAt > quietAfter || !snapshot.isServed()) {
        fruitlessSince.reset();
    } else if (busy && !fruitlessSince) {
        fruitlessSince = now;
        fruitlessReports = 0;
    }
    if (fruitlessSince && counts.reports > old.reports) {
        fruitlessReports += counts.reports - old.reports;
    }

    Recent& recent = snapshot.recent;
    recent.watched = std::max(0.0, now - began);
    recent.file = since(moments.file, now);
    recent.lost = since(moments.lost, now);
    recent.failedHandoff = since(moments.failedHandoff, now);
    recent.withoutPipe = since(moments.withoutPipe, now);
    recent.failedStart = since(moments.failedStart, now);
    recent.complaint = since(moments.complaint, now);
    recent.fruitless = since(fruitlessSince, now);
    recent.fruitlessReports = fruitlessSince ? fruitlessReports : 0;
    before = current;
}

} // namespace control
