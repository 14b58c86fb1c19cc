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
    if (!moment) {
        return std::nullopt;
    }
    return std::max(0.0, now - *moment);
}

} // namespace

void RecentChanges::note(Snapshot& snapshot) {
    const double now = snapshot.time;
    const Counts& counts = snapshot.total;
    if (!before) {
        began = now;
        before = counts;
    }
    if (counts.files < before->files || counts.processes < before->processes ||
        counts.reports < before->reports || counts.lost < before->lost) {
        // A daemon that was started again counts from nothing. What happened before is over.
        const double watchedSince = began;
        *this = RecentChanges{};
        began = watchedSince;
        before = Counts{};
    }
    const Counts& old = *before;

    if (counts.lost > old.lost) {
        lost = now;
    }
    if (counts.failedHandoffs > old.failedHandoffs) {
        failedHandoff = now;
    }
    if (counts.complaints > old.complaints) {
        complaint = now;
    }

    const bool busy = someCopyProcessRuns(snapshot) || counts.processes > old.processes;
    if (busy) {
        busyAt = now;
    }
    if (counts.files > old.files) {
        file = now;
        fruitlessSince.reset();
    } else if (now - busyAt > quietAfter ||
               snapshot.daemonState != Snapshot::DaemonState::running) {
        fruitlessSince.reset();
    } else if (busy && !fruitlessSince) {
        fruitlessSince = now;
        fruitlessReports = 0;
    }
    if (fruitlessSince && counts.reports > old.reports) {
        fruitlessReports += counts.reports - old.reports;
    }

    snapshot.recent.watched = std::max(0.0, now - began);
    snapshot.recent.file = since(file, now);
    snapshot.recent.lost = since(lost, now);
    snapshot.recent.failedHandoff = since(failedHandoff, now);
    snapshot.recent.complaint = since(complaint, now);
    snapshot.recent.fruitless = since(fruitlessSince, now);
    snapshot.recent.fruitlessReports = fruitlessSince ? fruitlessReports : 0;
    before = counts;
}

} // namespace control
