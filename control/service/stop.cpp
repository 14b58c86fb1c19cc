// Ending the daemon and what it has started.
#include "control/service/stop.h"

#include "control/command.h"
#include "control/control_files.h"
#include "control/event_journal.h"
#include "control/service/daemon_processes.h"
#include "control/service/idle_moment.h"
#include "control/service/process_handle.h"
#include "control/service/service_unit.h"
#include "daemon/global.h"
#include "utilities/sleep.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <map>
#include <utility>
#include <vector>

#include <unistd.h>

namespace control {

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

/// What is killed ends at once, unless it hangs in the kernel.
constexpr Milliseconds killLimit{5000};

/// Milliseconds after which a child that was forked is sure to be another program.
constexpr long forkToExec = 20;

/// "2 copy processes (905, 903)"; without a kind it is the daemon, of which there is one.
std::string named(const std::vector<pid_t>& pids, const std::string& kind) {
    std::string list;
    for (const pid_t pid : pids) {
        list += (list.empty() ? "" : ", ") + std::to_string(pid);
    }
    if (kind.empty()) {
        return GLOBAL::progName + ", process " + list + ",";
    }
    return std::to_string(pids.size()) + " " + kind + (pids.size() == 1 ? "" : "es") + " (" + list +
           ")";
}

/// Some processes of one kind on their way out, and how each of them went.
class Ending {
public:
    explicit Ending(std::string kindOfProcess) : kind(std::move(kindOfProcess)) {}

    /// Adds a process and sends it SIGTERM, unless it was added before.
    void add(const Process& process) {
        if (std::any_of(all.begin(), all.end(),
                        [&](const One& one) { return one.handle.pid() == process.pid; })) {
            return;
        }
        if (std::optional<ProcessHandle> handle = ProcessHandle::hold(process)) {
            const ProcessHandle::Sent sent = handle->send(SIGTERM);
            all.push_back({std::move(*handle), sent, false});
        }
    }

    bool isOver() const {
        return std::none_of(all.begin(), all.end(), [](const One& one) {
            return one.sent != ProcessHandle::Sent::notAllowed && one.handle.isRunning();
        });
    }

    void killTheRest() {
        for (One& one : all) {
            if (one.handle.isRunning()) {
                one.killed = true;
                one.handle.send(SIGKILL);
            }
        }
    }

    std::vector<Process> members() const {
        std::vector<Process> found;
        for (const One& one : all) {
            found.push_back(one.handle.process());
        }
        return found;
    }

    /// Says how they went; returns the exit status for it.
    int report() const {
        std::map<Fate, std::vector<pid_t>> pids;
        for (const One& one : all) {
            pids[fateOf(one)].push_back(one.handle.pid());
        }
        std::string line;
        for (const auto& [fate, how] :
             {std::pair{Fate::byItself, "had ended"}, std::pair{Fate::byTerm, "ended by SIGTERM"},
              std::pair{Fate::byKill, "ended by SIGKILL, not having heeded SIGTERM"}}) {
            if (pids.count(fate) > 0) {
                line += (line.empty() ? "" : "; ") + named(pids[fate], kind) + " " + how;
            }
        }
        if (!line.empty()) {
            say(line);
        }
        if (pids.count(Fate::left) > 0) {
            complain(named(pids[Fate::left], kind) + " would not end, not even by SIGKILL");
        }
        if (pids.count(Fate::forbidden) > 0) {
            complain(named(pids[Fate::forbidden], kind) +
                     " may not be signalled without root's rights");
            return notAllowed;
        }
        return pids.count(Fate::left) > 0 ? failed : succeeded;
    }

private:
    struct One {
        ProcessHandle handle;
        ProcessHandle::Sent sent; // of SIGTERM
        bool killed;
    };
    enum class Fate { byItself, byTerm, byKill, left, forbidden };

    static Fate fateOf(const One& one) {
        if (one.sent == ProcessHandle::Sent::notAllowed) {
            return Fate::forbidden;
        }
        return one.handle.isRunning()                   ? Fate::left
               : one.killed                             ? Fate::byKill
               : one.sent == ProcessHandle::Sent::ended ? Fate::byItself
                                                        : Fate::byTerm;
    }

    std::string kind;
    std::vector<One> all;
};

/// Waits for them to go, and kills those that do not in time.
void finish(Ending& ending, Milliseconds patience) {
    if (!waitFor([&ending] { return ending.isOver(); }, patience)) {
        ending.killTheRest();
        waitFor([&ending] { return ending.isOver(); }, killLimit);
    }
}

/// Ends copy processes that have lost their daemon, then the rest of their sessions and its own.
int endLeftBehind(const EndedDaemon& daemon, const std::vector<Process>& known,
                  const std::optional<Process>& daemonItself, Milliseconds patience) {
    Ending copies("copy process");
    for (const Process& each : known) {
        copies.add(each);
    }
    // One that had just been forked becomes recognisable only a moment later.
    const auto addOrphans = [&] {
        for (const Process& each : findOrphans(daemon)) {
            copies.add(each);
        }
    };
    if (daemonItself) {
        addOrphans();
        UTILITIES::sleepMilliSeconds(forkToExec);
        addOrphans();
    }
    finish(copies, patience);

    // Only those whose leader has ended: it would have seen to them by itself.
    Ending rest("further process");
    std::vector<Process> leaders = copies.members();
    if (daemonItself) {
        leaders.push_back(*daemonItself);
    }
    leaders.erase(std::remove_if(leaders.begin(), leaders.end(),
                                 [](const Process& leader) {
                                     return ProcessHandle::hold(leader).has_value();
                                 }),
                  leaders.end());
    // They start no sessions, but may start processes: look a second time.
    for (int round = 0; round < 2; ++round) {
        for (const Process& leader : leaders) {
            for (const Process& member : findSessionMembers(leader)) {
                rest.add(member);
            }
        }
        finish(rest, patience);
    }
    const int copiesStatus = copies.report();
    return std::max(copiesStatus, rest.report());
}

/// Takes away the PID file, if it still names one of those that have ended (or is as damaged as it
/// was). A daemon that was started meanwhile, without this program, keeps its own.
void removePidFile(const PidFile& seen, const std::vector<Process>& ended) {
    const PidFile now = readPidFile();
    const bool isTheirs = now.daemon == seen.daemon ||
                          std::any_of(ended.begin(), ended.end(),
                                      [&now](const Process& one) { return one.pid == now.daemon; });
    if ((now.state == PidFile::State::whole && isTheirs) ||
        (now.state == PidFile::State::damaged && now.state == seen.state &&
         now.written == seen.written)) {
        unlink(pidFilePath().c_str());
    }
}

/// Ends the daemon itself. The status is `succeeded` when it has ended.
int endDaemon(const ProcessHandle& daemon, const StopOptions& options) {
    const std::string name = GLOBAL::progName + ", process " + std::to_string(daemon.pid()) + ",";
    if (!options.whenIdle) {
        Ending ending("");
        ending.add(daemon.process());
        finish(ending, options.timeout);
        return ending.report();
    }
    const auto begin = Clock::now();
    switch (endWhenIdle(daemon, *options.whenIdle)) {
    case IdleEnd::ended:
        say(name + " ended in a moment without copy processes, after " +
            std::to_string(
                std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count()) +
            " s");
        return succeeded;
    case IdleEnd::gone:
        say(name + " had ended");
        return succeeded;
    case IdleEnd::cantTell:
        complain(name + " may be looked at and signalled only with root's rights; it goes on");
        return notAllowed;
    case IdleEnd::busy:
        break;
    }
    complain(name + " always had copy processes or their reports to deal with for " +
             std::to_string(options.whenIdle->count()) + " s; it goes on");
    return failed;
}

/// Ends one daemon and what it has started; `copies` are known to be its copy processes.
int stopOne(const Process& process, const std::vector<Process>& copies,
            const StopOptions& options) {
    if (const std::string service = managingService(process.pid); !service.empty()) {
        complain("nothing was stopped: systemd runs " + GLOBAL::progName + " as " + service +
                 " and may start it again; use systemctl");
        return failed;
    }
    if (const std::optional<ProcessHandle> daemon = ProcessHandle::hold(process)) {
        noteEvents({std::string(toldToEnd)}); // so that it does not count as a death
        if (const int status = endDaemon(*daemon, options); status != succeeded) {
            return status;
        }
    }
    EndedDaemon ended;
    ended.pid = process.pid;
    ended.started = startTime(process);
    ended.ended = static_cast<double>(std::time(nullptr)) + 1;
    return endLeftBehind(ended, copies, process, options.timeout);
}

} // namespace

int stopDaemon(const std::string& daemonPath, const StopOptions& options) {
    using State = DaemonProcesses::State;
    const DaemonProcesses found = findDaemon(daemonPath, Search::always);
    std::vector<Process> daemons = found.unvouched;
    std::vector<Process> uncertain = found.hidden;
    if (found.pid() != 0) {
        std::vector<Process>& list = found.state == State::running ? daemons : uncertain;
        list.insert(list.begin(), found.daemon);
    }

    int status = succeeded;
    for (const Process& daemon : daemons) {
        const bool isNamed = daemon.pid == found.pid();
        status =
            std::max(status, stopOne(daemon, isNamed ? found.copyProcesses : std::vector<Process>(),
                                     options));
    }
    if (!uncertain.empty()) {
        complain("process " + listOfPids(uncertain) + " seems to be " + GLOBAL::progName +
                 ", and was not stopped: only root, with all of its rights, may do that");
        return notAllowed;
    }
    if (daemons.empty() && found.state == State::unknown) {
        complain("nothing was stopped: " + found.text);
        return failed;
    }
    if (daemons.empty()) {
        say(found.text);
    }
    if (found.state != State::running && !found.copyProcesses.empty()) {
        EndedDaemon daemon;
        daemon.pid = found.pidFile.daemon;
        daemon.ended = found.pidFile.written;
        status = std::max(
            status, endLeftBehind(daemon, found.copyProcesses, std::nullopt, options.timeout));
    }
    if (status == succeeded) {
        removePidFile(found.pidFile, daemons);
    }
    return status;
}

} // namespace control
