// A daemon that keeps up, for tests that let something be wrong with it.
#pragma once

#include "control/observe/snapshot.h"

#include <string>

namespace control {

/// Seconds since 1970 of 2026-03-01 12:00:00 UTC, when the example is looked at.
constexpr double exampleTime = 1772366400;

/// A detector that copies with three processes.
inline DetectorSnapshot exampleDetector(const std::string& id) {
    DetectorSnapshot detector;
    detector.id = id;
    detector.shareUrl = "rsync://root@127.0.0." + id + ":49371/ramdisk/";
    detector.target = "/srv/images/" + id + "/.";
    detector.state = DetectorSnapshot::State::copying;
    detector.copyProcesses = 3;
    detector.remoteIp = "127.0.0." + id;
    detector.figures.emplace();
    detector.figures->since = exampleTime - 7200;
    detector.figures->files = 12345;
    detector.figures->bytes = 5ULL << 30;
    detector.figures->copies = 40;
    detector.figures->listedAgo = 0.5;
    detector.figures->lastFile = "run1/frame_000123.raw";
    detector.freeBytes = 300ULL << 30;
    detector.totalBytes = 400ULL << 30;
    return detector;
}

/// Two of them, an hour after the daemon's start, watched for a minute.
inline Snapshot exampleSnapshot() {
    Snapshot snapshot;
    snapshot.time = exampleTime;
    snapshot.uptime = 100000;
    snapshot.daemonState = DaemonState::running;
    snapshot.daemonText = "skarn (812) is running";
    snapshot.pid = 812;
    snapshot.upSince = exampleTime - 3600;
    snapshot.startOptions = {"-u", "1000:100"};
    snapshot.processLimit = 8;
    snapshot.configFile = "/etc/skarn_orbelin.conf";
    snapshot.detectors = {exampleDetector("1"), exampleDetector("2")};
    snapshot.hasFigures = true;
    snapshot.files = 24690;
    snapshot.bytes = 10ULL << 30;
    snapshot.filesSince = exampleTime - 7200;
    snapshot.counts.cycles = 34;
    snapshot.counts.processes = 80;
    snapshot.counts.reports = 74;
    snapshot.counts.files = 24690;
    snapshot.lastFile = "run1/frame_000123.raw";
    snapshot.rates.lastSeconds = 120;
    snapshot.rates.lastMinutes = 98.4;
    snapshot.rates.bytes = 48.5e6;
    snapshot.rates.history = {0, 10, 20, 40, 80, 70, 80, 20};
    snapshot.recent.watched = 60;
    snapshot.recent.file = 1;
    snapshot.pipe.state = PipeSnapshot::State::read;
    snapshot.pipe.path = "/var/run/vantrel_orbelin_files";
    snapshot.pipe.readers = {"vantrel (411)"};
    snapshot.log.path = "/var/log/skarn.log";
    snapshot.log.coverage = LogCoverage::sinceStart;
    snapshot.log.bytes = 512UL * 1024;
    snapshot.log.limit = 1024L * 1024;
    snapshot.log.archives = 3;
    snapshot.log.rotations = 2;
    return snapshot;
}

} // namespace control
