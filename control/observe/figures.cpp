// All figures: what each is called in JSON and for Prometheus, and what it means.
#include "control/observe/figures.h"

#include "control/display_text.h"
#include "control/observe/verdict.h"

#include <array>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

namespace control {

namespace {

using nlohmann::json;

/// The names of states that other programs read, in the order of the enumerators.
const std::vector<std::string> levels{"keeping_up", "attention", "cannot_tell", "not_keeping_up",
                                      "down"};
const std::vector<std::string> detectorStates{"not_served", "listing",     "copying",
                                              "idle",       "unreachable", "hanging"};
const std::vector<std::string> daemonStates{"running", "seems_to_run", "dead", "not_running",
                                            "unknown"};
const std::vector<std::string> pipeStates{"absent", "not_a_pipe", "no_reader",
                                          "read",   "held",       "unknown"};
const std::vector<std::string> coverages{"none", "since_start", "since_watch", "with_gap"};

template<class State>
const std::string& nameIn(const std::vector<std::string>& names, State state) {
    return names.at(static_cast<std::size_t>(state));
}

template<class Value>
json orNull(const std::optional<Value>& value) {
    return value ? json(*value) : json();
}

/// For texts that are empty when there is nothing to say.
json orNull(const std::string& text) {
    return text.empty() ? json() : json(text);
}

json onlyIf(bool isKnown, json value) {
    return isKnown ? std::move(value) : json();
}

json jsonOf(const DetectorSnapshot& detector) {
    const CopyFigures figures = detector.figures.value_or(CopyFigures());
    const auto known = [&detector](json value) {
        return onlyIf(detector.figures.has_value(), std::move(value));
    };
    return {
        {"id", detector.id},
        {"address", orNull(detector.remoteIp)},
        {"share", orNull(detector.shareUrl)},
        {"target", orNull(detector.target)},
        {"state", nameOf(detector.state)},
        {"copy_processes", detector.copyProcesses},
        {"complaint", orNull(detector.complaint)},
        {"failing_since", orNull(detector.failingSince)},
        {"no_answer_seconds", orNull(detector.noAnswer)},
        {"counts",
         {{"files", known(figures.files)},
          {"bytes", known(figures.bytes)},
          {"recovered", known(figures.recovered)},
          {"unconfirmed", known(figures.unconfirmed)},
          {"listings", known(figures.listings)},
          {"copies", known(figures.copies)},
          {"flush_errors", known(figures.flushErrors)}}},
        {"counts_since", known(figures.since)},
        {"entries", known(figures.entries)},
        {"listed_seconds_ago", orNull(figures.listedAgo)},
        {"last_file", orNull(figures.lastFile)},
        {"cycle",
         {{"seconds", orNull(detector.cycleSeconds)},
          {"dealt", orNull(detector.dealt)},
          {"finished", orNull(detector.finished)}}},
        {"target_is_silent", detector.targetIsSilent},
        {"free_bytes", orNull(detector.freeBytes)},
        {"total_bytes", orNull(detector.totalBytes)},
        {"free_inodes", orNull(detector.freeInodes)},
        {"total_inodes", orNull(detector.totalInodes)},
        {"seconds_until_full", orNull(detector.secondsUntilFull)},
    };
}

json jsonOf(const RelaySnapshot& relay) {
    json subscribers = json::array();
    for (const RelaySubscriber& each : relay.subscribers) {
        subscribers.push_back({{"name", each.name},
                               {"lag", each.lag},
                               {"lag_seconds", each.lagSeconds},
                               {"problem", orNull(each.problem)}});
    }
    return {{"records", relay.records},
            {"problem", orNull(relay.problem)},
            {"subscribers", std::move(subscribers)}};
}

json jsonOf(const Snapshot& snapshot) {
    const Verdict judgement = verdict(snapshot);
    json reasons = json::array();
    for (const Verdict::Reason& reason : judgement.reasons) {
        reasons.push_back(reason.text);
    }
    json detectors = json::array();
    for (const DetectorSnapshot& detector : snapshot.detectors) {
        detectors.push_back(jsonOf(detector));
    }
    const bool runs = snapshot.isServed();
    const Counts& counts = snapshot.counts;
    const PipeSnapshot& pipe = snapshot.pipe;
    const PipeWaits& waits = snapshot.waits;
    const LogSnapshot& log = snapshot.log;
    return {
        {"time", snapshot.time},
        {"verdict",
         {{"level", nameIn(levels, judgement.level)},
          {"reasons", std::move(reasons)},
          {"note", orNull(judgement.note)}}},
        {"daemon",
         {{"state", nameOf(snapshot.daemonState)},
          {"runs", runs},
          {"text", snapshot.daemonText},
          {"pid", onlyIf(runs, snapshot.pid)},
          {"up_since", orNull(snapshot.upSince)},
          {"start_options", onlyIf(runs, snapshot.startOptions)},
          {"process_limit", orNull(snapshot.processLimit)},
          {"others", snapshot.otherDaemons.size()},
          {"deaths_last_day", snapshot.deaths.lastDay},
          {"last_death", orNull(snapshot.deaths.last)},
          {"last_death_by", orNull(snapshot.deaths.how)}}},
        {"configuration",
         {{"file", orNull(snapshot.configFile)},
          {"problem", orNull(snapshot.configProblem)},
          {"readable", snapshot.configProblem.empty()},
          {"changed_since_start", snapshot.configChanged}}},
        {"total",
         {{"files", snapshot.files},
          {"bytes", onlyIf(snapshot.hasFigures, snapshot.bytes)},
          {"since", orNull(snapshot.filesSince)},
          {"missing", snapshot.missing},
          {"lost", counts.lost},
          {"failed_handoffs", counts.failedHandoffs},
          {"without_pipe", counts.withoutPipe},
          {"failed_starts", counts.failedStarts},
          {"failed_listings", counts.failedListings},
          {"complaints", counts.complaints},
          {"long_records", counts.longRecords},
          {"failed_removals", counts.failedRemovals},
          {"cycles", counts.cycles},
          {"processes", counts.processes},
          {"reports", counts.reports}}},
        {"copy_program_figures", snapshot.hasFigures},
        {"last_file", orNull(snapshot.lastFile)},
        {"last_complaint", orNull(snapshot.lastComplaint)},
        {"listing_complaint", orNull(snapshot.listingComplaint)},
        {"rates",
         {{"last_seconds", orNull(snapshot.rates.lastSeconds)},
          {"last_minutes", orNull(snapshot.rates.lastMinutes)},
          {"bytes", orNull(snapshot.rates.bytes)},
          {"history", snapshot.rates.history}}},
        {"pipe",
         {{"state", nameIn(pipeStates, pipe.state)},
          {"path", pipe.path},
          {"readers", pipe.readers},
          {"reader_count", onlyIf(pipe.state != PipeSnapshot::State::unknown, pipe.readers.size())},
          {"write_blocked_seconds", onlyIf(waits.known, waits.writing.value_or(0))},
          {"open_blocked_seconds", onlyIf(waits.known, waits.opening.value_or(0))}}},
        {"relay", snapshot.relay ? jsonOf(*snapshot.relay) : json()},
        {"log",
         {{"path", orNull(log.path)},
          {"coverage", nameIn(coverages, log.coverage)},
          {"problem", orNull(log.problem)},
          {"bytes", log.bytes},
          {"limit", onlyIf(log.limit >= 0, log.limit)},
          {"archives", log.archives},
          {"rotations", log.rotations},
          {"started", orNull(log.started)}}},
        {"detectors", std::move(detectors)},
    };
}

/// A figure as Prometheus gets it: a counter if its name says so, else a gauge. It stands at a
/// place of the JSON object; behind "detectors" in each of them.
struct Metric {
    const char* name;
    const char* where;
    const char* help;
    const std::vector<std::string>* states = nullptr; // a sample for each of these
};

constexpr std::array<Metric, 54> metrics{{
    {"skarn_verdict", "/verdict/level",
     "What skarnctl watch says in its first line. 1 for what is the case.", &levels},
    {"skarn_daemon_state", "/daemon/state",
     "Whether the daemon runs, seems to, is dead (its PID file is left), does not run, or it is "
     "not known. 1 for what is the case.",
     &daemonStates},
    {"skarn_up", "/daemon/runs", "Whether the daemon runs."},
    {"skarn_start_time_seconds", "/daemon/up_since",
     "When the running daemon was started, in seconds since 1970."},
    {"skarn_copy_process_limit", "/daemon/process_limit",
     "Copy processes that one detector may have."},
    {"skarn_other_daemons", "/daemon/others", "Daemons that run beside the first one."},
    {"skarn_daemon_deaths_last_day", "/daemon/deaths_last_day",
     "How often the daemon ended in the last 24 hours without being told to, by the event "
     "journal."},
    {"skarn_daemon_last_death_time_seconds", "/daemon/last_death",
     "When it did so last, in seconds since 1970."},
    {"skarn_config_readable", "/configuration/readable", "Whether the configuration can be read."},
    {"skarn_config_changed", "/configuration/changed_since_start",
     "Whether the configuration was changed after the daemon read it."},
    {"skarn_files_missing", "/total/missing", "Files reported lost that have not come since."},
    {"skarn_copy_program_figures", "/copy_program_figures",
     "Whether the copy program says how its listings and copies go."},
    {"skarn_pipe_state", "/pipe/state",
     "The hand-off pipe: read by somebody, held by systemd for its reader, without one, absent, "
     "something "
     "else, or not known. "
     "1 for what is the case.",
     &pipeStates},
    {"skarn_pipe_readers", "/pipe/reader_count",
     "Processes that hold the hand-off pipe open for reading."},
    {"skarn_pipe_write_blocked_seconds", "/pipe/write_blocked_seconds",
     "For how long a copy has waited in a full pipe from which nothing was read; 0 if none does."},
    {"skarn_pipe_open_blocked_seconds", "/pipe/open_blocked_seconds",
     "For how long a copy has waited for a reader of the pipe; 0 if none does."},
    {"skarn_log_coverage", "/log/coverage",
     "What the counters of the log cover: all since the daemon's start, what came since this "
     "program looks, the same with a gap, or nothing as there is no log. 1 for what is the case.",
     &coverages},
    {"skarn_log_size_bytes", "/log/bytes", "Size of the present log file."},
    {"skarn_log_limit_bytes", "/log/limit", "Size above which the daemon rotates its log."},
    {"skarn_log_archives", "/log/archives", "Rotated log files that are there."},
    {"skarn_log_rotations_total", "/log/rotations",
     "Rotations of the log since this program looks."},
    {"skarn_files_lost_total", "/total/lost",
     "Files that were sent and not confirmed. Most of them are copied by a later cycle."},
    {"skarn_handoff_failures_total", "/total/failed_handoffs",
     "Copied files that the consumer could not be told of, since a write to the pipe failed."},
    {"skarn_pipe_absent_total", "/total/without_pipe",
     "Copy processes that found no pipe; their files were announced to nobody."},
    {"skarn_copy_process_start_failures_total", "/total/failed_starts",
     "Copy processes that could not be started."},
    {"skarn_listing_failures_total", "/total/failed_listings",
     "Listings that could not be started."},
    {"skarn_complaints_total", "/total/complaints",
     "Lines that copy processes printed beside those about files, such as errors."},
    {"skarn_long_records_total", "/total/long_records",
     "Announcements too long for the pipe to pass them on in one piece."},
    {"skarn_file_list_removal_failures_total", "/total/failed_removals",
     "File lists that could not be removed."},
    {"skarn_cycles_total", "/total/cycles", "Cycles that had something to copy."},
    {"skarn_copy_processes_started_total", "/total/processes", "Copy processes started."},
    {"skarn_copy_reports_total", "/total/reports",
     "Copy processes that ended and whose report is in the log."},
    {"skarn_detector_state", "detectors/state",
     "What the daemon does for a detector, or why it can do nothing: its last listing failed, or "
     "the present one gets no answer. 1 for what is the case.",
     &detectorStates},
    {"skarn_copy_processes", "detectors/copy_processes", "Copy processes that run now."},
    {"skarn_listing_failing_since_seconds", "detectors/failing_since",
     "Since when all listings have failed, in seconds since 1970; absent if the last one did not."},
    {"skarn_no_answer_seconds", "detectors/no_answer_seconds",
     "For how long what runs has had no answer; absent if it has one."},
    {"skarn_files_copied_total", "detectors/counts/files",
     "Files copied and confirmed. Without a label: counted in the log, which names no detector, "
     "since the copy program keeps no figures."},
    {"skarn_bytes_copied_total", "detectors/counts/bytes", "Bytes of these files."},
    {"skarn_files_recovered_total", "detectors/counts/recovered",
     "Of these files, those that were announced for a run that had died."},
    {"skarn_files_unconfirmed_total", "detectors/counts/unconfirmed",
     "Files that a copy process left unconfirmed; a later one takes them."},
    {"skarn_listings_total", "detectors/counts/listings", "Listings begun."},
    {"skarn_copies_total", "detectors/counts/copies", "Copies begun."},
    {"skarn_flush_errors_total", "detectors/counts/flush_errors",
     "Times that what was copied could not be made durable."},
    {"skarn_listing_entries", "detectors/entries", "Entries of the last listing that ended."},
    {"skarn_listing_age_seconds", "detectors/listed_seconds_ago",
     "Seconds since the last listing ended."},
    {"skarn_cycle_age_seconds", "detectors/cycle/seconds",
     "Seconds since the oldest copy process that runs was started; absent if none runs."},
    {"skarn_cycle_names", "detectors/cycle/dealt",
     "Names on the file lists of the cycle that runs."},
    {"skarn_cycle_names_confirmed", "detectors/cycle/finished",
     "Of these, those that are confirmed."},
    {"skarn_target_silent", "detectors/target_is_silent",
     "Whether the target's file system does not answer."},
    {"skarn_target_free_bytes", "detectors/free_bytes",
     "Free space of the target's file system, as far as root may fill it."},
    {"skarn_target_size_bytes", "detectors/total_bytes", "Size of the target's file system."},
    {"skarn_target_free_inodes", "detectors/free_inodes", "Files that can still be made there."},
    {"skarn_target_inodes", "detectors/total_inodes", "Files that it can hold."},
    {"skarn_target_until_full_seconds", "detectors/seconds_until_full",
     "Seconds until the target's file system is full, at the rate of the last minutes; absent "
     "while it is not filling."},
}};

std::string label(const std::string& name, std::string_view text) {
    std::string value;
    for (const char each : labelValue(text)) {
        value += (each == '\\' || each == '"' ? "\\" : "") + std::string(1, each);
    }
    return name + "=\"" + value + "\"";
}

/// The head of a family, which is written with its first sample.
std::string head(const std::string& name, const std::string& help) {
    return "# HELP " + name + " " + help + "\n# TYPE " + name +
           (name.find("_total") != std::string::npos ? " counter\n" : " gauge\n");
}

std::string sample(const std::string& name, const std::string& labels, const std::string& value) {
    return name + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
}

/// The samples of a figure, if it is known.
std::string samples(const Metric& metric, const json& value, const std::string& labels) {
    if (metric.states == nullptr) {
        return value.is_null()      ? ""
               : value.is_boolean() ? sample(metric.name, labels, value.get<bool>() ? "1" : "0")
                                    : sample(metric.name, labels, value.dump());
    }
    const std::string where = metric.where;
    const std::string name = where.substr(where.rfind('/') + 1);
    std::string text;
    for (const std::string& state : *metric.states) {
        text += sample(metric.name, labels + (labels.empty() ? "" : ",") + label(name, state),
                       value == state ? "1" : "0");
    }
    return text;
}

} // namespace

const char* nameOf(DetectorSnapshot::State state) {
    return nameIn(detectorStates, state).c_str();
}

std::string labelValue(std::string_view text) {
    // The control characters beyond ASCII are none for a label either.
    return text.empty() ? "\\empty" : escaped(text, [](char32_t code) {
        return code >= 0x20 && (code < 0x7f || code >= 0xa0) && code != '\\';
    });
}

std::string jsonText(const Snapshot& snapshot, bool inOneLine) {
    return jsonOf(snapshot).dump(inOneLine ? -1 : 2, ' ', true, json::error_handler_t::replace);
}

std::string metricsText(const Snapshot& snapshot) {
    json object = jsonOf(snapshot);
    if (snapshot.log.coverage == LogCoverage::none) {
        object["total"] = {{"missing", snapshot.missing}}; // nothing was counted
    }
    std::string text;
    for (const Metric& metric : metrics) {
        const std::string where = metric.where;
        std::string found;
        if (where == "detectors/counts/files" && !snapshot.hasFigures) {
            found = samples(metric, object["total"]["files"], {});
        }
        if (where.front() == '/') {
            found = samples(metric, object.value(json::json_pointer(where), json()), {});
        } else {
            const json::json_pointer inIt(where.substr(where.find('/')));
            for (std::size_t index = 0; index < snapshot.detectors.size(); ++index) {
                found += samples(metric, object["detectors"][index].at(inIt),
                                 label("detector", snapshot.detectors[index].id));
            }
        }
        text += found.empty() ? "" : head(metric.name, metric.help) + found;
    }
    const std::string info = "skarn_detector_info";
    text += snapshot.detectors.empty()
                ? ""
                : head(info, "Where a detector's files come from and go to.");
    for (const DetectorSnapshot& detector : snapshot.detectors) {
        text += sample(info,
                       label("detector", detector.id) + "," + label("share", detector.shareUrl) +
                           "," + label("target", detector.target),
                       "1");
    }
    return text;
}

} // namespace control
