// The moment at which the daemon can be ended without a confirmed file that goes unannounced.
#include "control/service/service_commands.h"
#include "utilities/sleep.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <system_error>

#include <sys/stat.h>

namespace control {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

/// Under load one cycle follows the other, and the moment between them lasts no longer than a
/// listing.
constexpr Milliseconds shortestInterval{5};

/// For all its threads to stand still: one may be in the kernel for a while.
constexpr Milliseconds stopLimit{2000};
constexpr Milliseconds killLimit{10000};

enum class Work { none, some, hidden };

/// Whether the daemon has file lists. Its /tmp may be its own.
Work fileLists(const ProcessHandle& daemon) {
    const std::string root = "/proc/" + std::to_string(daemon.pid()) + "/root";
    const std::optional<uid_t> user = userOf(daemon.pid());
    // An earlier process of this number may have left a list that nobody will ever remove. The
    // clock may have been set since the start: what the daemon wrote then is another witness of it.
    double started = startTime(daemon.process());
    started = std::min(started, modificationTime(statusFilePath()).value_or(started));
    struct stat status = {};
    std::error_code error;
    fs::directory_iterator entry(root + "/tmp", error);
    for (const fs::directory_iterator end; !error && entry != end; entry.increment(error)) {
        const std::string path = entry->path().string();
        // Anybody may make a file of that name; the daemon's own are its user's.
        if (isFileListOf(entry->path().filename().string(), daemon.pid()) &&
            lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == user &&
            modificationTime(path) >= started - 2) {
            return Work::some;
        }
    }
    if (!error) {
        return Work::none;
    }
    return daemon.isRunning() ? Work::hidden : Work::none;
}

bool hasCopyProcess(const ProcessHandle& daemon) {
    const std::vector<pid_t> everyone = allProcesses();
    return std::any_of(everyone.begin(), everyone.end(), [&daemon](pid_t pid) {
        const std::optional<Process> process = readProcess(pid);
        return process && process->parent == daemon.pid() && isRunning(*process) &&
               process->session != daemon.process().session;
    });
}

bool isStopped(const ProcessHandle& daemon) {
    const std::string states = threadStates(daemon.pid());
    return !states.empty() && states.find_first_not_of("Tt") == std::string::npos;
}

/// Whether SIGTERM is neither ignored, blocked nor caught: it may have been started so.
bool canBeTerminated(pid_t pid) {
    std::uint64_t changed = 0;
    for (const char* const key : {"SigBlk", "SigIgn", "SigCgt"}) {
        for (const std::uint64_t signals : statusNumbers(pid, key, 16)) {
            changed |= signals;
        }
    }
    return (changed >> (SIGTERM - 1) & 1U) == 0;
}

/// Stops the daemon while it exists. Signals that would end or stop this program wait meanwhile.
class Stopped {
public:
    explicit Stopped(const ProcessHandle& stoppedDaemon)
        : daemon(stoppedDaemon), wasStopped(isStopped(stoppedDaemon)) {
        sigset_t waiting;
        sigemptyset(&waiting);
        for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP, SIGPIPE, SIGALRM,
                                 SIGUSR1, SIGUSR2, SIGXCPU, SIGTTOU, SIGTTIN}) {
            sigaddset(&waiting, signal);
        }
        sigprocmask(SIG_BLOCK, &waiting, &mask);
        sent = daemon.send(SIGSTOP);
    }
    ~Stopped() {
        // Who had stopped it before may go on having it stopped.
        if (!wasStopped) {
            daemon.send(SIGCONT);
        }
        sigprocmask(SIG_SETMASK, &mask, nullptr);
    }

    /// Ends it where it stands. By SIGTERM if that works, so that nobody takes it for a kill for
    /// want of memory: each thread gets one of its own, which it meets before all else when it is
    /// let go. Otherwise a thread could run on until another one's has ended all of them.
    void end() const {
        if (canBeTerminated(daemon.pid())) {
            for (const pid_t thread : threadsOf(daemon.pid())) {
                tgkill(daemon.pid(), thread, SIGTERM);
            }
            daemon.send(SIGCONT);
        } else {
            daemon.send(SIGKILL);
        }
    }
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

    ProcessHandle::Sent result() const { return sent; }

private:
    const ProcessHandle& daemon;
    const bool wasStopped;
    sigset_t mask = {};
    ProcessHandle::Sent sent;
};

/// Stops the daemon and ends it if it is idle then.
IdleEnd tryToEnd(const ProcessHandle& daemon) {
    const Stopped stopped(daemon);
    if (stopped.result() == ProcessHandle::Sent::notAllowed) {
        return IdleEnd::cantTell;
    }
    if (!waitFor([&daemon] { return isStopped(daemon) || !daemon.isRunning(); }, stopLimit)) {
        return IdleEnd::busy;
    }
    if (!daemon.isRunning()) {
        return IdleEnd::gone;
    }
    // No thread of it can start anything now.
    if (fileLists(daemon) != Work::none || hasCopyProcess(daemon)) {
        return IdleEnd::busy;
    }
    stopped.end();
    return waitFor([&daemon] { return !daemon.isRunning(); }, killLimit) ? IdleEnd::ended
                                                                         : IdleEnd::busy;
}

} // namespace

bool isFileListOf(const std::string& name, pid_t daemon) {
    const std::string beginning = "file_list_" + std::to_string(daemon) + "_";
    return name.compare(0, beginning.size(), beginning) == 0;
}

IdleEnd endWhenIdle(const ProcessHandle& daemon, std::chrono::seconds patience) {
    const Clock::time_point end = Clock::now() + patience;
    while (true) {
        const Clock::time_point begin = Clock::now();
        if (!daemon.isRunning()) {
            return IdleEnd::gone;
        }
        const Work work = fileLists(daemon);
        if (work == Work::hidden) {
            return IdleEnd::cantTell;
        }
        if (work == Work::none && !hasCopyProcess(daemon)) {
            const IdleEnd result = tryToEnd(daemon);
            if (result != IdleEnd::busy) {
                return result;
            }
        }
        if (Clock::now() >= end) {
            return IdleEnd::busy;
        }
        // A full /tmp takes its time to be looked through: rest four times as long.
        const auto looked = std::chrono::duration_cast<Milliseconds>(Clock::now() - begin);
        UTILITIES::sleepMilliSeconds(std::max(shortestInterval, 4 * looked).count());
    }
}

} // namespace control
