// A snapshot as a plain report, for files, mails and terminals that can do no more.
#include "control/observe/watch_text.h"

#include "control/observe/display_text.h"
#include "control/observe/verdict.h"

namespace control {

namespace {

/// "1 file", "2,000 files".
std::string counted(std::uint64_t number, const std::string& one, const std::string& many) {
    return grouped(number) + " " + (number == 1 ? one : many);
}

/// Puts the report together, line by line.
class Report {
public:
    explicit Report(bool isUnicode) : unicode(isUnicode) {}

    std::string shown(const std::string& text) const { return displayable(text, unicode); }

    void line(const std::string& text) { whole += text + "\n"; }
    void detail(const std::string& text) { line("  " + text); }

    const std::string& text() const { return whole; }

private:
    bool unicode;
    std::string whole;
};

void addDaemon(Report& report, const Snapshot& snapshot) {
    report.line("Daemon: " + report.shown(snapshot.daemonText));
    if (snapshot.upSince) {
        report.detail("up for " + durationText(snapshot.time - *snapshot.upSince));
    }
    if (!snapshot.startOptions.empty()) {
        std::string options;
        for (const std::string& option : snapshot.startOptions) {
            options += " " + option;
        }
        report.detail("started with" + report.shown(options));
    }
    if (snapshot.processLimit) {
        report.detail("at most " + std::to_string(*snapshot.processLimit) +
                      " copy processes for each detector");
    }
}

void addConfiguration(Report& report, const Snapshot& snapshot) {
    report.line("Configuration: " +
                (snapshot.configFile.empty() ? "none" : report.shown(snapshot.configFile)));
    if (!snapshot.configProblem.empty()) {
        report.detail(report.shown(snapshot.configProblem));
    }
    if (snapshot.configChanged) {
        report.detail("changed since the daemon has read it: what is shown may differ from what it "
                      "does");
    }
}

std::string coverageText(const LogSnapshot& log) {
    switch (log.coverage) {
    case LogCoverage::none:
        break;
    case LogCoverage::sinceStart:
        return "counted since the daemon's start";
    case LogCoverage::sinceOldest:
        return "counted since the oldest archive, which is younger than the daemon: too low";
    case LogCoverage::withGap:
        return "counted, but lines were missed when it was rotated or emptied: too low";
    }
    return "nothing could be counted";
}

void addLog(Report& report, const Snapshot& snapshot) {
    const LogSnapshot& log = snapshot.log;
    report.line("Log: " + (log.path.empty() ? "unknown" : report.shown(log.path)));
    if (!log.problem.empty()) {
        report.detail(report.shown(log.problem));
    }
    if (log.path.empty()) {
        return;
    }
    std::string limit = "never rotated";
    if (log.limit >= 0) {
        limit = "rotated above " + byteText(static_cast<std::uint64_t>(log.limit));
    }
    report.detail(byteText(log.bytes) + ", " + limit + ", " +
                  counted(static_cast<std::uint64_t>(log.archives), "archive", "archives"));
    report.detail(coverageText(log) +
                  (log.started.empty() ? "" : " (" + report.shown(log.started) + ")"));
}

void addPipe(Report& report, const Snapshot& snapshot) {
    const PipeSnapshot& pipe = snapshot.pipe;
    report.line("Pipe: " + report.shown(pipe.path));
    switch (pipe.state) {
    case PipeSnapshot::State::absent:
        report.detail("absent: files are announced to nobody");
        break;
    case PipeSnapshot::State::notAPipe:
        report.detail("not a pipe: files are announced to nobody");
        break;
    case PipeSnapshot::State::noReader:
        report.detail("nobody reads it: copying stands still until somebody does");
        break;
    case PipeSnapshot::State::unknown:
        report.detail("who reads it can't be seen without more rights");
        break;
    case PipeSnapshot::State::read:
        std::string readers;
        for (const std::string& reader : pipe.readers) {
            readers += (readers.empty() ? "" : ", ") + report.shown(reader);
        }
        report.detail("read by " + (readers.empty() ? "a process" : readers));
        break;
    }
}

/// What went wrong, each kind only if it did.
void addTroubles(Report& report, const Counts& counts) {
    const auto add = [&report](std::uint64_t number, const std::string& one,
                               const std::string& many) {
        if (number > 0) {
            report.detail(counted(number, one, many));
        }
    };
    add(counts.lost, "file reported lost", "files reported lost");
    add(counts.failedHandoffs, "file that the consumer was not told of",
        "files that the consumer was not told of");
    add(counts.withoutPipe, "copy process without a pipe to the consumer",
        "copy processes without a pipe to the consumer");
    add(counts.longRecords, "path too long to be announced in one piece",
        "paths too long to be announced in one piece");
    add(counts.complaints, "line of complaint from copy processes",
        "lines of complaint from copy processes");
    add(counts.failedStarts, "copy process that could not be started",
        "copy processes that could not be started");
    add(counts.failedListings, "listing that could not be started",
        "listings that could not be started");
    add(counts.failedRemovals, "file list that could not be removed",
        "file lists that could not be removed");
}

void addTotal(Report& report, const Snapshot& snapshot) {
    const Counts& total = snapshot.total;
    report.line("Files: " + grouped(total.files) + " copied");
    if (snapshot.rates.lastSeconds) {
        report.detail(rateText(*snapshot.rates.lastSeconds) +
                      " per second over the last 10 s or since watching began");
    }
    report.detail("by " + counted(total.processes, "copy process", "copy processes") + " in " +
                  counted(total.cycles, "cycle", "cycles"));
    if (snapshot.unattributed.files > 0) {
        report.detail("files of which the log does not tell the detector: " +
                      grouped(snapshot.unattributed.files));
    }
    if (!snapshot.lastFile.empty()) {
        report.detail("last: " + report.shown(snapshot.lastFile));
    }
    addTroubles(report, total);
    if (!snapshot.lastComplaint.empty()) {
        report.detail("last complaint: " + report.shown(snapshot.lastComplaint));
    }
}

std::string stateText(const DetectorSnapshot& detector) {
    switch (detector.state) {
    case DetectorSnapshot::State::notServed:
        return "not served: no daemon runs";
    case DetectorSnapshot::State::listing:
        return "listing";
    case DetectorSnapshot::State::idle:
        return "idle";
    case DetectorSnapshot::State::copying:
        break;
    }
    return "copying with " +
           counted(static_cast<std::uint64_t>(detector.copyProcesses), "process", "processes");
}

void addDetector(Report& report, const Snapshot& snapshot, const DetectorSnapshot& detector) {
    report.line("Detector " + report.shown(detector.id) + ": " + stateText(detector));
    if (detector.shareUrl.empty()) {
        report.detail("served by the daemon, but the configuration does not name it");
    } else {
        report.detail("from " + report.shown(detector.shareUrl));
        report.detail("to " + report.shown(detector.target));
    }
    std::string space = "free space unknown";
    if (detector.freeBytes && detector.totalBytes) {
        space = byteText(*detector.freeBytes) + " of " + byteText(*detector.totalBytes) + " free";
        if (detector.secondsUntilFull) {
            space += ", full in " + durationText(*detector.secondsUntilFull) + " at this rate";
        }
    }
    report.detail(space);
    const bool isCertain = snapshot.unattributed.files == 0;
    report.detail((isCertain ? "" : "at least ") + counted(detector.counts.files, "file", "files") +
                  " copied in " + counted(detector.counts.cycles, "cycle", "cycles"));
    if (!detector.lastFile.empty()) {
        report.detail("last: " + report.shown(detector.lastFile));
    }
    addTroubles(report, detector.counts);
}

} // namespace

std::string watchText(const Snapshot& snapshot, bool unicode) {
    Report report(unicode);
    report.line(report.shown(sentence(verdict(snapshot))));
    addDaemon(report, snapshot);
    addConfiguration(report, snapshot);
    addLog(report, snapshot);
    addPipe(report, snapshot);
    addTotal(report, snapshot);
    for (const DetectorSnapshot& detector : snapshot.detectors) {
        addDetector(report, snapshot, detector);
    }
    return report.text();
}

} // namespace control
