// The one table of all figures: what each is called in JSON and for Prometheus, and what it means.
#include "control/observe/figures.h"

#include "control/display_text.h"
#include "control/observe/verdict.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

namespace control {

namespace {

using nlohmann::json;

/// The names of states that other programs read, in the order of the enumerators.
constexpr std::array levels{"keeping_up", "attention", "cannot_tell", "not_keeping_up", "down"};
constexpr std::array detectorStates{"not_served", "listing",     "copying",
                                    "idle",       "unreachable", "hanging"};
constexpr std::array pipeStates{"absent", "not_a_pipe", "no_reader", "read", "unknown"};
constexpr std::array coverages{"none", "since_start", "since_watch", "with_gap"};

template<std::size_t count, class State>
const char* nameIn(const std::array<const char*, count>& names, State state) {
    return names.at(static_cast<std::size_t>(state));
}

template<std::size_t count>
std::vector<const char*> all(const std::array<const char*, count>& names) {
    return {names.begin(), names.end()};
}

template<class Value>
json orNull(const Value& value) {
    return json(value);
}

template<class Value>
json orNull(const std::optional<Value>& value) {
    return value ? json(*value) : json(nullptr);
}

/// For texts that are empty when there is nothing to say.
json orNull(const std::string& text) {
    return text.empty() ? json(nullptr) : json(text);
}

/// The value at the end of these members: at<&Snapshot::log, &LogSnapshot::bytes>.
template<auto member, auto... others, class Of>
json at(const Of& of) {
    if constexpr (sizeof...(others) == 0) {
        return orNull(of.*member);
    } else {
        return at<others...>(of.*member);
    }
}

json onlyIf(bool isKnown, json value) {
    return isKnown ? std::move(value) : json(nullptr);
}

/// One figure of a snapshot or of a detector.
template<class Of>
struct Figure {
    using Value = json (*)(const Of& of);

    /// `inGroup` is the JSON object that it stands in ("": the outermost), `asName` its name there.
    /// What is no figure is nothing for Prometheus. A type "state" has a sample for each state.
    Figure(const char* inGroup, const char* asName, Value how, const char* asMetric = nullptr,
           const char* ofType = nullptr, const char* explained = nullptr,
           std::vector<const char*> ofStates = {})
        : group(inGroup), name(asName), value(how), metric(asMetric), type(ofType), help(explained),
          states(std::move(ofStates)) {}

    const char* group;
    const char* name;
    Value value; // null if it is not known
    const char* metric;
    const char* type;
    const char* help;
    std::vector<const char*> states;
};

/// Counted in the log, of all detectors.
struct LogCount {
    const char* name;
    std::uint64_t Counts::*count;
    const char* metric;
    const char* help;
    const char* title; // in the view
    bool isBad;
};

constexpr std::array<LogCount, 11> logCounts{{
    {"lost", &Counts::lost, "skarn_files_lost_total",
     "Files that were sent and not confirmed. Most of them are copied by a later cycle.", "lost",
     true},
    {"failed_handoffs", &Counts::failedHandoffs, "skarn_handoff_failures_total",
     "Copied files that the consumer could not be told of, since a write to the pipe failed.",
     "not announced", true},
    {"without_pipe", &Counts::withoutPipe, "skarn_pipe_absent_total",
     "Copy processes that found no pipe; their files were announced to nobody.", "no pipe", true},
    {"failed_starts", &Counts::failedStarts, "skarn_copy_process_start_failures_total",
     "Copy processes that could not be started.", "failed starts", true},
    {"failed_listings", &Counts::failedListings, "skarn_listing_failures_total",
     "Listings that could not be started.", "failed listings", true},
    {"complaints", &Counts::complaints, "skarn_complaints_total",
     "Lines that copy processes printed beside those about files, such as errors.", "complaints",
     true},
    {"long_records", &Counts::longRecords, "skarn_long_records_total",
     "Announcements too long for the pipe to pass them on in one piece.", "long records", true},
    {"failed_removals", &Counts::failedRemovals, "skarn_file_list_removal_failures_total",
     "File lists that could not be removed.", "lists left", true},
    {"cycles", &Counts::cycles, "skarn_cycles_total", "Cycles that had something to copy.",
     "cycles", false},
    {"processes", &Counts::processes, "skarn_copy_processes_started_total",
     "Copy processes started.", "processes", false},
    {"reports", &Counts::reports, "skarn_copy_reports_total",
     "Copy processes that ended and whose report is in the log.", nullptr, false},
}};

const std::vector<Figure<Snapshot>>& snapshotFigures() {
    using S = Snapshot;
    static const std::vector<Figure<S>> figures = {
        {"", "time", at<&S::time>},
        {"verdict", "level", [](const S& s) { return json(nameIn(levels, verdict(s).level)); },
         "skarn_verdict", "state", "What skarnctl watch says in its first line.", all(levels)},
        {"verdict", "reasons",
         [](const S& s) {
             json reasons = json::array();
             for (const Verdict::Reason& reason : verdict(s).reasons) {
                 reasons.push_back(reason.text);
             }
             return reasons;
         }},
        {"verdict", "note", [](const S& s) { return orNull(verdict(s).note); }},
        {"daemon",
         "state",
         [](const S& s) { return json(nameOf(s.daemonState)); },
         "skarn_daemon_state",
         "state",
         "Whether the daemon runs, seems to, is dead (its PID file is left), does not run, or it "
         "is not known.",
         {"running", "seems_to_run", "dead", "not_running", "unknown"}},
        {"daemon", "runs", [](const S& s) { return json(s.isServed()); }, "skarn_up", "gauge",
         "Whether the daemon runs."},
        {"daemon", "text", [](const S& s) { return json(s.daemonText); }},
        {"daemon", "pid", [](const S& s) { return onlyIf(s.isServed(), s.pid); }},
        {"daemon", "up_since", at<&S::upSince>, "skarn_start_time_seconds", "gauge",
         "When the running daemon was started, in seconds since 1970."},
        {"daemon", "start_options",
         [](const S& s) { return onlyIf(s.isServed(), s.startOptions); }},
        {"daemon", "process_limit", at<&S::processLimit>, "skarn_copy_process_limit", "gauge",
         "Copy processes that one detector may have."},
        {"daemon", "others", [](const S& s) { return json(s.otherDaemons.size()); },
         "skarn_other_daemons", "gauge", "Daemons that run beside the first one."},
        {"daemon", "deaths_last_day", at<&S::deaths, &Deaths::lastDay>,
         "skarn_daemon_deaths_last_day", "gauge",
         "How often the daemon ended in the last 24 hours without being told to, by the event "
         "journal."},
        {"daemon", "last_death", at<&S::deaths, &Deaths::last>,
         "skarn_daemon_last_death_time_seconds", "gauge",
         "When it did so last, in seconds since 1970."},
        {"daemon", "last_death_by", at<&S::deaths, &Deaths::how>},
        {"configuration", "file", at<&S::configFile>},
        {"configuration", "problem", at<&S::configProblem>},
        {"configuration", "readable", [](const S& s) { return json(s.configProblem.empty()); },
         "skarn_config_readable", "gauge", "Whether the configuration can be read."},
        {"configuration", "changed_since_start", at<&S::configChanged>, "skarn_config_changed",
         "gauge", "Whether the configuration was changed after the daemon read it."},
        {"total", "files", at<&S::files>},
        {"total", "bytes", [](const S& s) { return onlyIf(s.hasFigures, s.bytes); }},
        {"total", "since", at<&S::filesSince>},
        {"total", "missing", at<&S::missing>, "skarn_files_missing", "gauge",
         "Files reported lost that have not come since."},
        {"", "copy_program_figures", at<&S::hasFigures>, "skarn_copy_program_figures", "gauge",
         "Whether the copy program says how its listings and copies go."},
        {"", "last_file", at<&S::lastFile>},
        {"", "last_complaint", at<&S::lastComplaint>},
        {"", "listing_complaint", at<&S::listingComplaint>},
        {"rates", "last_seconds", at<&S::rates, &Rates::lastSeconds>},
        {"rates", "last_minutes", at<&S::rates, &Rates::lastMinutes>},
        {"rates", "bytes", at<&S::rates, &Rates::bytes>},
        {"rates", "history", at<&S::rates, &Rates::history>},
        {"pipe", "state", [](const S& s) { return json(nameIn(pipeStates, s.pipe.state)); },
         "skarn_pipe_state", "state",
         "The hand-off pipe: read by somebody, without a reader, absent, something else, or not "
         "known.",
         all(pipeStates)},
        {"pipe", "path", [](const S& s) { return json(s.pipe.path); }},
        {"pipe", "readers", at<&S::pipe, &PipeSnapshot::readers>},
        {"pipe", "reader_count",
         [](const S& s) {
             return onlyIf(s.pipe.state != PipeSnapshot::State::unknown, s.pipe.readers.size());
         },
         "skarn_pipe_readers", "gauge", "Processes that hold the hand-off pipe open for reading."},
        {"pipe", "write_blocked_seconds",
         [](const S& s) { return onlyIf(s.waits.known, s.waits.writing.value_or(0)); },
         "skarn_pipe_write_blocked_seconds", "gauge",
         "For how long a copy has waited in a full pipe from which nothing was read; 0 if none "
         "does."},
        {"pipe", "open_blocked_seconds",
         [](const S& s) { return onlyIf(s.waits.known, s.waits.opening.value_or(0)); },
         "skarn_pipe_open_blocked_seconds", "gauge",
         "For how long a copy has waited for a reader of the pipe; 0 if none does."},
        {"log", "path", at<&S::log, &LogSnapshot::path>},
        {"log", "coverage", [](const S& s) { return json(nameIn(coverages, s.log.coverage)); },
         "skarn_log_coverage", "state",
         "What the counters of the log cover: all since the daemon's start, what came since this "
         "program looks, the same with a gap, or nothing as there is no log.",
         all(coverages)},
        {"log", "problem", at<&S::log, &LogSnapshot::problem>},
        {"log", "bytes", at<&S::log, &LogSnapshot::bytes>, "skarn_log_size_bytes", "gauge",
         "Size of the present log file."},
        {"log", "limit", [](const S& s) { return onlyIf(s.log.limit >= 0, s.log.limit); },
         "skarn_log_limit_bytes", "gauge", "Size above which the daemon rotates its log."},
        {"log", "archives", at<&S::log, &LogSnapshot::archives>, "skarn_log_archives", "gauge",
         "Rotated log files that are there."},
        {"log", "rotations", at<&S::log, &LogSnapshot::rotations>, "skarn_log_rotations_total",
         "counter", "Rotations of the log since this program looks."},
        {"log", "started", at<&S::log, &LogSnapshot::started>},
    };
    return figures;
}

/// One of the numbers that only the copy program knows.
template<std::uint64_t CopyFigures::*number>
json figure(const DetectorSnapshot& detector) {
    return detector.figures ? json(*detector.figures.*number) : json(nullptr);
}

const std::vector<Figure<DetectorSnapshot>>& detectorFigures() {
    using D = DetectorSnapshot;
    static const std::vector<Figure<D>> figures = {
        {"", "id", [](const D& d) { return json(d.id); }},
        {"", "address", at<&D::remoteIp>},
        {"", "share", at<&D::shareUrl>},
        {"", "target", at<&D::target>},
        {"", "state", [](const D& d) { return json(nameOf(d.state)); }, "skarn_detector_state",
         "state",
         "What the daemon does for a detector, or why it can do nothing: its last listing failed, "
         "or the present one gets no answer.",
         all(detectorStates)},
        {"", "copy_processes", at<&D::copyProcesses>, "skarn_copy_processes", "gauge",
         "Copy processes that run now."},
        {"", "complaint", at<&D::complaint>},
        {"", "failing_since", at<&D::failingSince>, "skarn_listing_failing_since_seconds", "gauge",
         "Since when all listings have failed, in seconds since 1970; absent if the last one did "
         "not."},
        {"", "no_answer_seconds", at<&D::noAnswer>, "skarn_no_answer_seconds", "gauge",
         "For how long what runs has had no answer; absent if it has one."},
        {"counts", "files", figure<&CopyFigures::files>, "skarn_files_copied_total", "counter",
         "Files copied and confirmed. Without a label: counted in the log, which names no "
         "detector, since the copy program keeps no figures."},
        {"counts", "bytes", figure<&CopyFigures::bytes>, "skarn_bytes_copied_total", "counter",
         "Bytes of these files."},
        {"counts", "recovered", figure<&CopyFigures::recovered>, "skarn_files_recovered_total",
         "counter", "Of these files, those that were announced for a run that had died."},
        {"counts", "unconfirmed", figure<&CopyFigures::unconfirmed>,
         "skarn_files_unconfirmed_total", "counter",
         "Files that a copy process left unconfirmed; a later one takes them."},
        {"counts", "listings", figure<&CopyFigures::listings>, "skarn_listings_total", "counter",
         "Listings begun."},
        {"counts", "copies", figure<&CopyFigures::copies>, "skarn_copies_total", "counter",
         "Copies begun."},
        {"counts", "flush_errors", figure<&CopyFigures::flushErrors>, "skarn_flush_errors_total",
         "counter", "Times that what was copied could not be made durable."},
        {"", "counts_since",
         [](const D& d) { return d.figures ? json(d.figures->since) : json(nullptr); }},
        {"", "entries", figure<&CopyFigures::entries>, "skarn_listing_entries", "gauge",
         "Entries of the last listing that ended."},
        {"", "listed_seconds_ago",
         [](const D& d) { return d.figures ? orNull(d.figures->listedAgo) : json(nullptr); },
         "skarn_listing_age_seconds", "gauge", "Seconds since the last listing ended."},
        {"", "last_file",
         [](const D& d) { return d.figures ? orNull(d.figures->lastFile) : json(nullptr); }},
        {"cycle", "seconds", at<&D::cycleSeconds>, "skarn_cycle_age_seconds", "gauge",
         "Seconds since the oldest copy process that runs was started; absent if none runs."},
        {"cycle", "dealt", at<&D::dealt>, "skarn_cycle_names", "gauge",
         "Names on the file lists of the cycle that runs."},
        {"cycle", "finished", at<&D::finished>, "skarn_cycle_names_confirmed", "gauge",
         "Of these, those that are confirmed."},
        {"", "target_is_silent", at<&D::targetIsSilent>, "skarn_target_silent", "gauge",
         "Whether the target's file system does not answer."},
        {"", "free_bytes", at<&D::freeBytes>, "skarn_target_free_bytes", "gauge",
         "Free space of the target's file system, as far as root may fill it."},
        {"", "total_bytes", at<&D::totalBytes>, "skarn_target_size_bytes", "gauge",
         "Size of the target's file system."},
        {"", "free_inodes", at<&D::freeInodes>, "skarn_target_free_inodes", "gauge",
         "Files that can still be made there."},
        {"", "total_inodes", at<&D::totalInodes>, "skarn_target_inodes", "gauge",
         "Files that it can hold."},
        {"", "seconds_until_full", at<&D::secondsUntilFull>, "skarn_target_until_full_seconds",
         "gauge",
         "Seconds until the target's file system is full, at the rate of the last minutes; absent "
         "while it is not filling."},
    };
    return figures;
}

template<class Of>
json jsonOf(const std::vector<Figure<Of>>& figures, const Of& of) {
    json object = json::object();
    for (const Figure<Of>& figure : figures) {
        json& place = *figure.group == '\0' ? object : object[figure.group];
        place[figure.name] = figure.value(of);
    }
    return object;
}

/// Writes Prometheus's text: families, each with its samples.
class MetricsWriter {
public:
    void family(const char* name, const char* type, const char* help) {
        family_ = name;
        const bool isState = std::string_view(type) == "state";
        head_ = std::string("# HELP ") + name + " " + help +
                (isState ? " 1 for what is the case." : "") + "\n# TYPE " + name + " " +
                (isState ? "gauge" : type) + "\n";
    }

    void sample(const std::string& labels, const std::string& value) {
        text_ += std::exchange(head_, {}) + family_ + (labels.empty() ? "" : "{" + labels + "}") +
                 " " + value + "\n";
    }

    std::string take() { return std::move(text_); }

private:
    std::string family_;
    std::string head_; // written with its first sample
    std::string text_;
};

std::string label(const char* name, std::string_view text) {
    std::string value;
    for (const char each : labelValue(text)) {
        value += each == '\\' || each == '"' ? std::string("\\") + each : std::string(1, each);
    }
    return std::string(name) + "=\"" + value + "\"";
}

template<class Of>
void addSamples(const Figure<Of>& figure, const Of& of, const std::string& labels,
                MetricsWriter& writer) {
    const json value = figure.value(of);
    for (const char* const state : figure.states) {
        writer.sample(labels + (labels.empty() ? "" : ",") + label(figure.name, state),
                      value == state ? "1" : "0");
    }
    if (figure.states.empty() && !value.is_null()) {
        writer.sample(labels, value.is_boolean() ? (value.get<bool>() ? "1" : "0") : value.dump());
    }
}

} // namespace

const char* nameOf(DetectorSnapshot::State state) {
    return nameIn(detectorStates, state);
}

std::string labelValue(std::string_view text) {
    if (text.empty()) {
        return "\\empty";
    }
    std::string value;
    while (!text.empty()) {
        const Character next = firstCharacter(text);
        // The control characters beyond ASCII as well.
        const bool control = next.code < 0x20 || (next.code >= 0x7f && next.code < 0xa0);
        const std::size_t bytes = std::max<std::size_t>(1, next.bytes);
        if (next.bytes == 0 || control || next.code == '\\') {
            for (const char byte : text.substr(0, bytes)) {
                std::array<char, 5> octal{};
                std::snprintf(octal.data(), octal.size(), "\\%03o",
                              static_cast<unsigned>(static_cast<unsigned char>(byte)));
                value += octal.data();
            }
        } else {
            value += text.substr(0, bytes);
        }
        text.remove_prefix(bytes);
    }
    return value;
}

std::vector<TitledFigure> titledFigures(const Snapshot& snapshot) {
    std::vector<TitledFigure> found;
    for (const LogCount& each : logCounts) {
        if (each.title != nullptr) {
            found.push_back({each.title, snapshot.counts.*each.count, each.isBad});
        }
    }
    return found;
}

std::string jsonText(const Snapshot& snapshot, bool inOneLine) {
    json object = jsonOf(snapshotFigures(), snapshot);
    for (const LogCount& each : logCounts) {
        object["total"][each.name] = snapshot.counts.*each.count;
    }
    json detectors = json::array();
    for (const DetectorSnapshot& detector : snapshot.detectors) {
        detectors.push_back(jsonOf(detectorFigures(), detector));
    }
    object["detectors"] = std::move(detectors);
    return object.dump(inOneLine ? -1 : 2, ' ', true, json::error_handler_t::replace);
}

std::string metricsText(const Snapshot& snapshot) {
    MetricsWriter writer;
    for (const Figure<Snapshot>& figure : snapshotFigures()) {
        if (figure.metric != nullptr) {
            writer.family(figure.metric, figure.type, figure.help);
            addSamples(figure, snapshot, {}, writer);
        }
    }
    for (const LogCount& each : logCounts) {
        // Nothing was counted where nothing could be read.
        if (snapshot.log.coverage != LogCoverage::none) {
            writer.family(each.metric, "counter", each.help);
            writer.sample({}, std::to_string(snapshot.counts.*each.count));
        }
    }
    for (const Figure<DetectorSnapshot>& figure : detectorFigures()) {
        if (figure.metric == nullptr) {
            continue;
        }
        writer.family(figure.metric, figure.type, figure.help);
        if (figure.metric == std::string_view("skarn_files_copied_total") && !snapshot.hasFigures &&
            snapshot.log.coverage != LogCoverage::none) {
            writer.sample({}, std::to_string(snapshot.files));
        }
        for (const DetectorSnapshot& detector : snapshot.detectors) {
            addSamples(figure, detector, label("detector", detector.id), writer);
        }
    }
    writer.family("skarn_detector_info", "gauge", "Where a detector's files come from and go to.");
    for (const DetectorSnapshot& detector : snapshot.detectors) {
        writer.sample(label("detector", detector.id) + "," + label("share", detector.shareUrl) +
                          "," + label("target", detector.target),
                      "1");
    }
    return writer.take();
}

} // namespace control
