// The figures of one snapshot in the form of the metrics system Prometheus.
#include "control/metrics/metric_families.h"

#include "control/observe/display_text.h"
#include "control/observe/snapshot_names.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <utility>

namespace control {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

/// What stands for a text without a character: no other text gives it, as each backslash of a text
/// is followed by digits.
constexpr std::string_view emptyLabel = "\\empty";

/// Builds the families in the order in which they are to be shown.
class Families {
public:
    void gauge(const char* name, const char* help, double value, Labels labels = {}) {
        ClientMetric metric;
        metric.label = std::move(labels);
        metric.gauge.value = value;
        family(name, help, MetricType::Gauge).metric.push_back(std::move(metric));
    }

    void counter(const char* name, const char* help, std::uint64_t value, Labels labels = {}) {
        ClientMetric metric;
        metric.label = std::move(labels);
        metric.counter.value = static_cast<double>(value);
        family(name, help, MetricType::Counter).metric.push_back(std::move(metric));
    }

    /// One gauge for each of the states that there are: 1 for the present one, 0 for the others.
    void state(const char* name, const char* help, const Labels& labels, const char* label,
               std::initializer_list<const char*> states, const char* present) {
        for (const char* each : states) {
            Labels all = labels;
            all.push_back({label, each});
            gauge(name, help, std::string_view(each) == present ? 1 : 0, std::move(all));
        }
    }

    std::vector<MetricFamily> take() { return std::move(families); }

private:
    MetricFamily& family(const char* name, const char* help, MetricType type) {
        const auto found =
            std::find_if(families.begin(), families.end(),
                         [name](const MetricFamily& each) { return each.name == name; });
        if (found != families.end()) {
            return *found;
        }
        families.push_back({name, help, type, {}});
        return families.back();
    }

    std::vector<MetricFamily> families;
};

Labels detectorLabel(const DetectorSnapshot& detector) {
    return {{"detector", labelValue(detector.id)}};
}

/// A counter that each detector has.
struct DetectorCounter {
    const char* name;
    const char* help;
    std::uint64_t Counts::*count;
};

constexpr std::array<DetectorCounter, 12> detectorCounters{{
    {"skarn_files_copied_total", "Files copied and confirmed.", &Counts::files},
    {"skarn_files_lost_total",
     "Files that were sent and never confirmed. Most of them are copied by a later cycle.",
     &Counts::lost},
    {"skarn_handoff_failures_total",
     "Copied files that the consumer could not be told of, since a write to the pipe failed.",
     &Counts::failedHandoffs},
    {"skarn_pipe_absent_total",
     "Copy processes that found no pipe; their files were announced to nobody.",
     &Counts::withoutPipe},
    {"skarn_long_records_total",
     "Announcements too long for the pipe to pass them on in one piece.", &Counts::longRecords},
    {"skarn_cycles_total", "Cycles that had something to copy.", &Counts::cycles},
    {"skarn_copy_processes_started_total", "Copy processes started.", &Counts::processes},
    {"skarn_copy_process_start_failures_total", "Copy processes that could not be started.",
     &Counts::failedStarts},
    {"skarn_copy_reports_total", "Copy processes that ended and whose report is in the log.",
     &Counts::reports},
    {"skarn_complaints_total",
     "Lines that copy processes printed beside those about files, such as errors.",
     &Counts::complaints},
    {"skarn_listing_failures_total", "Listings that could not be started.",
     &Counts::failedListings},
    {"skarn_file_list_removal_failures_total", "File lists that could not be removed.",
     &Counts::failedRemovals},
}};

void addDaemon(const Snapshot& snapshot, Families& families) {
    const bool running = snapshot.daemonState == Snapshot::DaemonState::running;
    families.gauge("skarn_up", "Whether the daemon runs.", running ? 1 : 0);
    families.state(
        "skarn_daemon_state",
        "Whether the daemon runs, is dead (its PID file is left), does not run, or it is "
        "not known: 1 for what is the case.",
        {}, "state", {"running", "dead", "not_running", "unknown"}, nameOf(snapshot.daemonState));
    if (snapshot.upSince) {
        families.gauge("skarn_start_time_seconds",
                       "When the running daemon was started, in seconds since 1970.",
                       *snapshot.upSince);
    }
    if (snapshot.processLimit) {
        families.gauge("skarn_copy_process_limit", "Copy processes that one detector may have.",
                       *snapshot.processLimit);
    }
    families.gauge("skarn_config_readable", "Whether the configuration can be read.",
                   snapshot.configProblem.empty() ? 1 : 0);
    families.gauge("skarn_config_changed",
                   "Whether the configuration was changed after the daemon read it.",
                   snapshot.configChanged ? 1 : 0);
}

void addCounters(const Snapshot& snapshot, Families& families) {
    // Nothing was counted where nothing could be read.
    if (snapshot.log.coverage == LogCoverage::none) {
        return;
    }
    for (const DetectorCounter& each : detectorCounters) {
        for (const DetectorSnapshot& detector : snapshot.detectors) {
            families.counter(each.name, each.help, detector.counts.*each.count,
                             detectorLabel(detector));
        }
        // What is still undecided counts when it is decided: a counter that shrinks would be taken
        // for one that began anew, and its files would count twice.
        families.counter(each.name, each.help,
                         snapshot.unattributed.*each.count - snapshot.undecided.*each.count);
    }
}

void addDetectors(const Snapshot& snapshot, Families& families) {
    for (const DetectorSnapshot& detector : snapshot.detectors) {
        const Labels labels = detectorLabel(detector);
        Labels all = labels;
        all.push_back({"share", labelValue(detector.shareUrl)});
        all.push_back({"target", labelValue(detector.target)});
        families.gauge("skarn_detector_info", "Where a detector's files come from and go to.", 1,
                       std::move(all));
        families.state(
            "skarn_detector_state", "What the daemon does for a detector: 1 for what is the case.",
            labels, "state", {"listing", "copying", "idle", "not_served"}, nameOf(detector.state));
        families.gauge("skarn_copy_processes", "Copy processes that run now.",
                       detector.copyProcesses, labels);
        if (detector.freeBytes) {
            families.gauge("skarn_target_free_bytes", "Free space of the target's file system.",
                           static_cast<double>(*detector.freeBytes), labels);
        }
        if (detector.totalBytes) {
            families.gauge("skarn_target_size_bytes", "Size of the target's file system.",
                           static_cast<double>(*detector.totalBytes), labels);
        }
        if (detector.secondsUntilFull) {
            families.gauge("skarn_target_until_full_seconds",
                           "Seconds until the target's file system is full, at the rate of the "
                           "last minutes; absent while it is not filling.",
                           *detector.secondsUntilFull, labels);
        }
    }
}

void addPipe(const Snapshot& snapshot, Families& families) {
    const PipeSnapshot& pipe = snapshot.pipe;
    families.state("skarn_pipe_state",
                   "The hand-off pipe: read by somebody, without a reader, absent, something else, "
                   "or not known: 1 for what is the case.",
                   {}, "state", {"read", "no_reader", "absent", "not_a_pipe", "unknown"},
                   nameOf(pipe.state));
    if (pipe.state != PipeSnapshot::State::unknown) {
        families.gauge("skarn_pipe_readers",
                       "Processes that hold the hand-off pipe open for reading.",
                       static_cast<double>(pipe.readers.size()));
    }
}

void addLog(const Snapshot& snapshot, Families& families) {
    const LogSnapshot& log = snapshot.log;
    families.state("skarn_log_coverage",
                   "How much of the daemon's life the counters cover: all since its start, since "
                   "the oldest line left, with a gap, or none as there is no log: 1 for what is "
                   "the case.",
                   {}, "coverage", {"since_start", "since_oldest", "with_gap", "none"},
                   nameOf(log.coverage));
    families.gauge("skarn_log_size_bytes", "Size of the present log file.",
                   static_cast<double>(log.bytes));
    if (log.limit >= 0) {
        families.gauge("skarn_log_limit_bytes", "Size above which the daemon rotates its log.",
                       static_cast<double>(log.limit));
    }
    families.gauge("skarn_log_archives", "Rotated log files that are there.", log.archives);
    families.counter("skarn_log_rotations_total",
                     "Rotations of the log since this exporter was started.", log.rotations);
}

} // namespace

std::string labelValue(std::string_view text) {
    if (text.empty()) {
        return std::string(emptyLabel);
    }
    std::string value;
    value.reserve(text.size());
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

std::vector<MetricFamily> metricFamilies(const Snapshot& snapshot) {
    Families families;
    addDaemon(snapshot, families);
    addCounters(snapshot, families);
    addDetectors(snapshot, families);
    addPipe(snapshot, families);
    addLog(snapshot, families);
    return families.take();
}

} // namespace control
