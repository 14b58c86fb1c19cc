// The subcommands that start, stop and ask after the daemon.
#include "control/service/service_commands.h"

#include "control/check/findings.h"
#include "control/child.h"
#include "control/command.h"
#include "control/display_text.h"
#include "daemon/global.h"
#include "utilities/text.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace control {

using nlohmann::json;

NLOHMANN_JSON_SERIALIZE_ENUM(PidFile::State, {{PidFile::State::absent, "absent"},
                                              {PidFile::State::unreadable, "unreadable"},
                                              {PidFile::State::damaged, "damaged"},
                                              {PidFile::State::whole, "whole"}})

namespace {

constexpr const char* lockPath = "/var/run/skarnctl.lock";
constexpr std::chrono::seconds lockPatience{10};

/// Longer than the unit gives the daemon to stop, and the next one to start.
constexpr std::chrono::seconds systemctlPatience{150};

/// Times as whole seconds: their fractions are not certain.
json wholeSeconds(double time) {
    return static_cast<std::int64_t>(std::floor(time));
}

/// A word as a shell would want it, so that where one ends can be seen.
std::string shellWord(const std::string& word) {
    if (!word.empty() && word.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                                                "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                                "0123456789_-+=:,./@%") == std::string::npos) {
        return word;
    }
    std::string quoted = "'";
    for (const char character : word) {
        quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return quoted + "'";
}

/// Does something to the service while no other skarnctl does, wherever it runs: by hand or in a
/// unit. The file stays; what counts is who has it locked, and no child inherits that.
int underLock(const std::function<int()>& action) {
    const Descriptor lock(
        open(lockPath, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (!lock) {
        const bool isForbidden = errno == EACCES || errno == EPERM;
        complain(std::string("cannot open ") + lockPath + ": " + std::strerror(errno) +
                 (isForbidden ? "; this needs root's rights" : ""));
        return isForbidden ? notAllowed : failed;
    }
    if (!waitFor([&lock] { return flock(lock.get(), LOCK_EX | LOCK_NB) == 0; }, lockPatience)) {
        throw std::runtime_error("another skarnctl is starting or stopping the daemon (it has " +
                                 std::string(lockPath) + " locked)");
    }
    return action();
}

int start(const CommonOptions& common) {
    startDaemon(common.daemonPath, common.startOptions);
    return succeeded;
}

/// Throws if it is clear that a start would fail: a daemon that works is not ended for that.
void refuseInVain(const std::string& path, const std::vector<std::string>& startOptions) {
    const std::string reason = access(path.c_str(), X_OK) != 0
                                   ? "cannot run " + path + ": " + std::strerror(errno)
                                   : whatIsFatal(startOptions);
    if (!reason.empty()) {
        throw std::runtime_error("nothing was stopped: " + GLOBAL::progName +
                                 " would not start: " + reason);
    }
}

} // namespace

int runStart(const CommonOptions& common) {
    return underLock([&common] { return start(common); });
}

int runRestart(const CommonOptions& common, const StopOptions& options) {
    const DaemonProcesses found = findDaemon(common.daemonPath);
    const std::string service = found.pid() != 0 ? managingService(found.pid()) : "";
    if (service.empty()) {
        return underLock([&] {
            refuseInVain(common.daemonPath, common.startOptions);
            const int stopped = stopDaemon(common.daemonPath, options);
            return stopped == succeeded ? start(common) : stopped;
        });
    }
    // systemd restarts what it runs. Not under the lock, which the unit's own skarnctl needs.
    if (!common.startOptions.empty()) {
        throw std::runtime_error("nothing was stopped: systemd runs " + GLOBAL::progName + " as " +
                                 service + ", whose start options stand in " + unitOptionsFile);
    }
    refuseInVain(common.daemonPath, unitOptions());
    Child systemctl({"/usr/bin/systemctl", "restart", "--", service});
    const bool hasEnded =
        systemctl.startError() == 0 && systemctl.finish(Child::Clock::now() + systemctlPatience);
    if (!hasEnded || *systemctl.status() != 0) {
        throw std::runtime_error("systemd did not restart " + service + ": " +
                                 firstLine(systemctl.text()));
    }
    say("systemd has restarted " + service);
    return succeeded;
}

int runStop(const CommonOptions& common, const StopOptions& options) {
    return underLock([&] { return stopDaemon(common.daemonPath, options); });
}

int runStatus(const CommonOptions& common, bool asJson) {
    const DaemonProcesses found = findDaemon(common.daemonPath, Search::always);
    const std::string text = asJson ? statusJson(found, readStatusFile()) : statusText(found);
    return print(text).value_or(statusCode(found.state));
}

int statusCode(DaemonState state) {
    static constexpr int codes[] = {0, 5, 1, 3, 4};
    return codes[static_cast<int>(state)];
}

std::string statusText(const DaemonProcesses& found) {
    std::string shown = displayable(found.text, false);
    shown += found.startOptions.empty() ? "" : "\nstart options:";
    for (const std::string& word : found.startOptions) {
        shown += " " + displayable(shellWord(word), false);
    }
    return shown + "\n";
}

std::string statusJson(const DaemonProcesses& found, const std::optional<int>& processLimit) {
    json copies = json::array();
    for (const Process& process : found.copyProcesses) {
        copies.push_back({{"pid", process.pid}, {"since", wholeSeconds(startTime(process))}});
    }
    json unvouched = json::array();
    for (const Process& process : found.unvouched) {
        unvouched.push_back(process.pid);
    }
    const bool runs = found.pid() != 0;
    const json status = {
        {"state", nameOf(found.state)},
        {"exit_status", statusCode(found.state)},
        {"text", found.text},
        {"pid", runs ? json(found.pid()) : json()},
        {"since", found.upSince ? wholeSeconds(*found.upSince) : json()},
        {"start_options", found.startOptions},
        {"copy_processes", copies},
        {"copy_process_limit", runs && processLimit ? json(*processLimit) : json()},
        {"unvouched_processes", unvouched},
        {"pid_file",
         {{"path", pidFilePath()},
          {"state", found.pidFile.state},
          {"problem", found.pidFile.problem}}},
    };
    // Start options may hold any byte; what is no UTF-8 is shown as U+FFFD, and the rest as ASCII,
    // so that nothing steers a terminal.
    return status.dump(2, ' ', true, json::error_handler_t::replace) + "\n";
}

int firstStartOption(int argc, const char* const* argv) {
    const auto begins = [argv](int index, std::string_view beginning) {
        return UTILITIES::stringBegin(argv[index], beginning);
    };
    int i = 1;
    for (bool isAlone = false; i < argc; i += isAlone ? 2 : 1) {
        isAlone = std::string_view(argv[i]) == "--daemon"; // its value is a word of its own
        if (!isAlone && !begins(i, "--daemon=")) {
            break;
        }
    }
    const std::string_view word = i < argc ? argv[i] : "";
    if (word != "start" && word != "restart") {
        return argc;
    }
    // Neither is an option of the daemon; alone, they ask for help.
    const std::string_view last = argv[argc - 1];
    if (i + 2 == argc && (last == "--help" || last == "-h")) {
        return argc;
    }
    return i + (word == "restart" && i + 1 < argc && begins(i + 1, "--when-idle") ? 2 : 1);
}

} // namespace control
