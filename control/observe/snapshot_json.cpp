// A snapshot as JSON, for other programs.
#include "control/observe/snapshot_json.h"

#include "control/observe/snapshot_names.h"
#include "control/observe/verdict.h"

#include <nlohmann/json.hpp>

namespace control {

namespace {

using nlohmann::json;

template<class Value>
json orNull(const std::optional<Value>& value) {
    return value ? json(*value) : json(nullptr);
}

/// For texts that are empty when there is nothing to say.
json orNull(const std::string& text) {
    return text.empty() ? json(nullptr) : json(text);
}

const char* nameOf(Verdict::Level level) {
    switch (level) {
    case Verdict::Level::keepingUp:
        return "keeping_up";
    case Verdict::Level::attention:
        return "attention";
    case Verdict::Level::notKeepingUp:
        return "not_keeping_up";
    case Verdict::Level::down:
        return "down";
    case Verdict::Level::cannotTell:
        break;
    }
    return "cannot_tell";
}

json jsonOf(const Counts& counts) {
    return {{"cycles", counts.cycles},
            {"processes", counts.processes},
            {"failed_starts", counts.failedStarts},
            {"reports", counts.reports},
            {"files", counts.files},
            {"lost", counts.lost},
            {"complaints", counts.complaints},
            {"failed_handoffs", counts.failedHandoffs},
            {"without_pipe", counts.withoutPipe},
            {"long_records", counts.longRecords},
            {"failed_listings", counts.failedListings},
            {"failed_removals", counts.failedRemovals}};
}

json jsonOf(const DetectorSnapshot& detector) {
    return {{"id", detector.id},
            {"share", orNull(detector.shareUrl)},
            {"target", orNull(detector.target)},
            {"state", nameOf(detector.state)},
            {"copy_processes", detector.copyProcesses},
            {"counts", jsonOf(detector.counts)},
            {"last_file", orNull(detector.lastFile)},
            {"free_bytes", orNull(detector.freeBytes)},
            {"total_bytes", orNull(detector.totalBytes)},
            {"seconds_until_full", orNull(detector.secondsUntilFull)}};
}

} // namespace

json snapshotJson(const Snapshot& snapshot) {
    const bool isRunning = snapshot.daemonState == Snapshot::DaemonState::running;
    json detectors = json::array();
    for (const DetectorSnapshot& detector : snapshot.detectors) {
        detectors.push_back(jsonOf(detector));
    }
    const LogSnapshot& log = snapshot.log;
    const Verdict judged = verdict(snapshot);
    return {
        {"time", snapshot.time},
        {"verdict", {{"level", nameOf(judged.level)}, {"reasons", judged.reasons}}},
        {"daemon",
         {{"state", nameOf(snapshot.daemonState)},
          {"text", snapshot.daemonText},
          {"pid", isRunning ? json(snapshot.pid) : json(nullptr)},
          {"up_since", orNull(snapshot.upSince)},
          {"start_options", isRunning ? json(snapshot.startOptions) : json(nullptr)},
          {"process_limit", orNull(snapshot.processLimit)}}},
        {"configuration",
         {{"file", orNull(snapshot.configFile)},
          {"problem", orNull(snapshot.configProblem)},
          {"changed_since_start", snapshot.configChanged}}},
        {"detectors", std::move(detectors)},
        {"total", jsonOf(snapshot.total)},
        {"unattributed", jsonOf(snapshot.unattributed)},
        {"last_file", orNull(snapshot.lastFile)},
        {"last_complaint", orNull(snapshot.lastComplaint)},
        {"rates",
         {{"last_seconds", orNull(snapshot.rates.lastSeconds)},
          {"last_minutes", orNull(snapshot.rates.lastMinutes)},
          {"history", snapshot.rates.history}}},
        {"pipe",
         {{"state", nameOf(snapshot.pipe.state)},
          {"path", snapshot.pipe.path},
          {"readers", snapshot.pipe.readers}}},
        {"log",
         {{"path", orNull(log.path)},
          {"coverage", nameOf(log.coverage)},
          {"problem", orNull(log.problem)},
          {"bytes", log.bytes},
          {"limit", log.limit},
          {"archives", log.archives},
          {"rotations", log.rotations},
          {"started", orNull(log.started)}}},
    };
}

std::string snapshotJsonText(const Snapshot& snapshot, bool inOneLine) {
    return snapshotJson(snapshot).dump(inOneLine ? -1 : 2, ' ', false,
                                       json::error_handler_t::replace);
}

} // namespace control
