// Ending the daemon and what it has started.
#include "control/child.h"
#include "control/command.h"
#include "control/event_journal.h"
#include "control/service/service_commands.h"
#include "daemon/global.h"
#include "utilities/sleep.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <map>
#include <stdexcept>
#include <utility>

#include <systemd/sd-login.h>
#include <unistd.h>

namespace control {

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

/// What is killed ends at once, unless it hangs in the kernel.
constexpr Milliseconds killLimit{5000};

/// Milliseconds after which a child that was forked is sure to be another program.
constexpr long forkToExec = 20;

/// Some processes of one kind on their way out, and how each of them goes. Without a kind it is the
/// daemon, of which there is one.
class Ending {
public:
    explicit Ending(std::string kindOfProcess) : kind(std::move(kindOfProcess)) {}

    /// Adds processes and sends them SIGTERM, but to those that were added before.
    void add(const std::vector<Process>& processes) {
        for (const Process& process : processes) {
            const bool isKnown = std::any_of(all.begin(), all.end(), [&process](const One& one) {
                return one.handle.pid() == process.pid;
            });
            std::optional<ProcessHandle> handle =
                isKnown ? std::nullopt : ProcessHandle::hold(process);
            if (handle) {
                const Fate fate = fates.at(handle->send(SIGTERM));
                all.push_back({std::move(*handle), fate});
            }
        }
    }

    /// Waits for them to go, and kills those that do not in time.
    void finish(Milliseconds patience) {
        const auto isOver = [this] { return std::none_of(all.begin(), all.end(), isLeft); };
        if (waitFor(isOver, patience)) {
            return;
        }
        for (One& one : all) {
            if (isLeft(one)) {
                one.fate = Fate::byKill;
                one.handle.send(SIGKILL);
            }
        }
        waitFor(isOver, killLimit);
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
        static const std::map<Fate, const char*> texts = {
            {Fate::byItself, "had ended"},
            {Fate::byTerm, "ended by SIGTERM"},
            {Fate::byKill, "ended by SIGKILL, not having heeded SIGTERM"},
            {Fate::left, "would not end, not even by SIGKILL"},
            {Fate::forbidden, "may not be signalled without root's rights"}};
        std::map<Fate, std::vector<pid_t>> pids;
        for (const One& one : all) {
            pids[isLeft(one) ? Fate::left : one.fate].push_back(one.handle.pid());
        }
        std::string said;
        for (const auto& [fate, some] : pids) {
            const std::string text = named(some) + texts.at(fate);
            if (fate >= Fate::left) {
                complain(text);
            } else {
                said += (said.empty() ? "" : "; ") + text;
            }
        }
        if (!said.empty()) {
            say(said);
        }
        return pids.count(Fate::forbidden) > 0 ? notAllowed
               : pids.count(Fate::left) > 0    ? failed
                                               : succeeded;
    }

private:
    enum class Fate { byItself, byTerm, byKill, left, forbidden };
    struct One {
        ProcessHandle handle;
        Fate fate; // of one that has ended
    };

    static inline const std::map<ProcessHandle::Sent, Fate> fates = {
        {ProcessHandle::Sent::sent, Fate::byTerm},
        {ProcessHandle::Sent::ended, Fate::byItself},
        {ProcessHandle::Sent::notAllowed, Fate::forbidden}};

    /// "2 copy processes (905, 903) "
    std::string named(const std::vector<pid_t>& pids) const {
        std::string list;
        for (const pid_t pid : pids) {
            list += (list.empty() ? "" : ", ") + std::to_string(pid);
        }
        return kind.empty() ? GLOBAL::progName + ", process " + list + ", "
                            : std::to_string(pids.size()) + " " + kind +
                                  (pids.size() == 1 ? "" : "es") + " (" + list + ") ";
    }

    static bool isLeft(const One& one) {
        return one.fate != Fate::forbidden && one.handle.isRunning();
    }

    std::string kind;
    std::vector<One> all;
};

/// Ends copy processes that have lost their daemon, then the rest of their sessions and its own.
int endLeftBehind(const EndedDaemon& daemon, const std::vector<Process>& known,
                  const std::optional<Process>& daemonItself, Milliseconds patience) {
    Ending copies("copy process");
    copies.add(known);
    if (daemonItself) {
        // One that had just been forked becomes recognisable only a moment later.
        copies.add(findOrphans(daemon));
        UTILITIES::sleepMilliSeconds(forkToExec);
        copies.add(findOrphans(daemon));
    }
    copies.finish(patience);

    // Only those whose leader has ended: it would have seen to them by itself.
    Ending rest("further process");
    std::vector<Process> leaders = copies.members();
    leaders.insert(leaders.end(), daemonItself ? 1 : 0, daemonItself.value_or(Process()));
    const auto lives = [](const Process& one) { return ProcessHandle::hold(one).has_value(); };
    leaders.erase(std::remove_if(leaders.begin(), leaders.end(), lives), leaders.end());
    // They start no sessions, but may start processes: look a second time.
    for (int round = 0; round < 2; ++round) {
        for (const Process& leader : leaders) {
            rest.add(findSessionMembers(leader));
        }
        rest.finish(patience);
    }
    const int status = copies.report();
    return std::max(status, rest.report());
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
    if (!options.whenIdle) {
        Ending ending("");
        ending.add({daemon.process()});
        ending.finish(options.timeout);
        return ending.report();
    }
    const std::string name = GLOBAL::progName + ", process " + std::to_string(daemon.pid()) + ",";
    const auto begin = Clock::now();
    const IdleEnd end = endWhenIdle(daemon, *options.whenIdle);
    const auto took = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin);
    switch (end) {
    case IdleEnd::ended:
        say(name + " ended in a moment without copy processes, after " +
            std::to_string(took.count()) + " s");
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
    const double now = static_cast<double>(std::time(nullptr)) + 1;
    return endLeftBehind({process.pid, startTime(process), now}, copies, process, options.timeout);
}

std::string unitOf(pid_t pid) {
    char* name = nullptr;
    std::string unit = sd_pid_get_unit(pid, &name) < 0 ? "" : name;
    std::free(name);
    return unit;
}

} // namespace

std::string managingService(pid_t daemon) {
    constexpr std::string_view ending = ".service";
    constexpr std::chrono::seconds limit{5};
    const std::string unit = unitOf(daemon);
    if (unit.size() <= ending.size() || unit == unitOf(0) ||
        unit.substr(unit.size() - ending.size()) != ending) {
        return {};
    }
    Child question({"/usr/bin/systemctl", "show", "--property=MainPID", "--value", "--", unit});
    bool isAnswered = false;
    if (question.startError() == 0) {
        isAnswered = question.finish(Child::Clock::now() + limit) && question.status() == 0;
        question.kill();
    }
    const bool isItsOwn = isAnswered
                              ? firstLine(question.text()) == std::to_string(daemon)
                              : unit.compare(0, GLOBAL::progName.size(), GLOBAL::progName) == 0;
    return isItsOwn ? unit : std::string();
}

int stopDaemon(const std::string& daemonPath, const StopOptions& options) {
    const DaemonProcesses found = findDaemon(daemonPath, Search::always);
    const bool runs = found.state == DaemonState::running;
    std::vector<Process> daemons = found.unvouched;
    std::vector<Process> uncertain = found.hidden;
    if (found.pid() != 0) {
        std::vector<Process>& list = runs ? daemons : uncertain;
        list.insert(list.begin(), found.daemon);
    }
    int status = succeeded;
    for (const Process& daemon : daemons) {
        const bool isNamed = daemon.pid == found.pid();
        const auto copies = isNamed ? found.copyProcesses : std::vector<Process>();
        status = std::max(status, stopOne(daemon, copies, options));
    }
    if (!uncertain.empty()) {
        complain("process " + listOfPids(uncertain) + " seems to be " + GLOBAL::progName +
                 ", and was not stopped: only root, with all of its rights, may do that");
        return notAllowed;
    }
    if (daemons.empty() && found.state == DaemonState::unknown) {
        throw std::runtime_error("nothing was stopped: " + found.text);
    }
    if (daemons.empty()) {
        say(found.text);
    }
    if (!runs && !found.copyProcesses.empty()) {
        const EndedDaemon daemon = {found.pidFile.daemon, 0, found.pidFile.written};
        status = std::max(
            status, endLeftBehind(daemon, found.copyProcesses, std::nullopt, options.timeout));
    }
    if (status == succeeded) {
        removePidFile(found.pidFile, daemons);
    }
    return status;
}

} // namespace control
