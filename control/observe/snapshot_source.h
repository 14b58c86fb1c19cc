// Looks at the daemon from outside, again and again, and says what it saw.
#pragma once

#include "control/aside.h"
#include "control/configuration.h"
#include "control/event_journal.h"
#include "control/observe/detector_watch.h"
#include "control/observe/figure_history.h"
#include "control/observe/log_follower.h"
#include "control/observe/log_model.h"
#include "control/observe/snapshot.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace control {

/// Where to look.
struct SnapshotOptions {
    std::string configFile; // empty: where the daemon looks
    std::string daemonPath; // of the daemon's executable
};

/// Room on one file system. `free` is what root may still fill, in bytes.
struct Space {
    std::uint64_t free = 0;
    std::uint64_t total = 0;
    std::uint64_t freeInodes = 0;
    std::uint64_t totalInodes = 0; // 0: it makes them as they are needed
};

/// The file system on which `path` is, or would be: that of its nearest existing folder. Nothing if
/// it can't be asked. May wait for as long as a file server does not answer.
std::optional<Space> spaceAt(std::string path);

/// Reads the copy program's figures, the log (through its rotations), the PID and the status file,
/// the configuration, the event journal, /proc and the free space at the targets. Writes nothing,
/// starts nothing and waits for nobody. For one thread at a time.
class SnapshotSource {
public:
    explicit SnapshotSource(SnapshotOptions chosen);

    /// What is known now. Rates are those over the calls so far, so call it regularly: every second
    /// or so. Never throws for what it finds or does not find outside; what can't be seen is said
    /// in the snapshot.
    Snapshot look();

private:
    /// What takes long to find out.
    struct FarLook {
        PipeSnapshot pipe;
        std::vector<pid_t> otherDaemons;
        double took = 0; // seconds of the processor
    };

    /// Rates and the filling of targets go by so many seconds.
    static constexpr double secondsKept = 300;

    void lookAtDaemon(Snapshot& snapshot);
    void lookAtConfiguration(Snapshot& snapshot);
    void lookAtEvents(Snapshot& snapshot);
    void lookAtLog(Snapshot& snapshot);
    void sumUp(Snapshot& snapshot);
    void lookForLost(Snapshot& snapshot);
    void lookAtSpace(Snapshot& snapshot);
    void addRates(Snapshot& snapshot);
    void lookAtPipe(Snapshot& snapshot);
    void lookAtWaits(Snapshot& snapshot);

    SnapshotOptions options;
    double now = 0; // by the host's uptime

    DaemonProcesses processes;
    std::vector<std::string> startOptions; // of the last daemon that was seen running

    /// All that the configuration depends on.
    std::tuple<std::string, std::optional<FileVersion>, std::vector<std::string>> loadedFrom;
    std::uint64_t loadedFor = 0; // start of the daemon that runs by it
    std::optional<Configuration> configuration;
    std::string configProblem;

    std::optional<FileVersion> eventsVersion;
    std::vector<Event> events;

    std::optional<LogAside> log;
    std::tuple<std::string, int> logSource; // as configured: path, number of archives
    std::shared_ptr<LogModel> model;        // of what was read in it
    bool isLogRead = false;                 // at this look: else `model` is not to be touched
    LogSnapshot lastLog;                    // these two as of the last look at which it was read
    LogAccount account;

    DetectorWatch detectors;
    RecentChanges changes;
    GrowingTotal counted;
    History files{secondsKept};
    History bytes{secondsKept};
    std::map<std::string, Aside<std::optional<Space>>> spaces; // by target
    std::map<std::string, History> freeHistory;                // by target

    Aside<std::optional<RelaySnapshot>> relay;
    Aside<FarLook> far;
    FarLook lastFar;
    std::optional<std::pair<pid_t, std::optional<FileId>>> farSubject; // daemon and pipe
    double farDue = 0;

    std::vector<std::pair<PipeWait, double>> waits; // with the moment at which each was first seen

    Aside<std::set<std::string>> lost;
    double lostDue = 0;
};

} // namespace control
