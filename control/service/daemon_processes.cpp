// Which processes are the daemon and its copy processes, whatever the PID file claims.
#include "control/service/daemon_processes.h"

#include "control/display_text.h"
#include "control/file.h"
#include "daemon/global.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <system_error>

#include <unistd.h>

namespace control {

namespace {

namespace fs = std::filesystem;

/// How far the start of a process and the time of a file may be apart the wrong way round: ticks
/// are rounded, file systems use a coarse clock, and a leap second may lie between.
constexpr double forgivenSeconds = 2;

constexpr const char* twoDaemons = "they spoil each other's work, stop ends them all";

Judgement yes() {
    return {Judgement::Kind::confirmed, {}};
}

Judgement no(std::string reason) {
    return {Judgement::Kind::refuted, std::move(reason)};
}

Judgement hidden() {
    return {Judgement::Kind::hidden, "may be looked at only by root"};
}

bool leadsItsSession(const Process& process) {
    return process.session == process.pid && process.group == process.pid;
}

enum class Runs { yes, no, hidden };

Runs runs(const Evidence& evidence, const Program& program) {
    if (evidence.executable.empty()) {
        return Runs::hidden;
    }
    const bool same = evidence.executable == program.path ||
                      evidence.executable == program.path + " (deleted)" ||
                      (program.identity && evidence.executed == program.identity);
    return same ? Runs::yes : Runs::no;
}

/// A script's path stands behind its interpreter and that one's own option.
bool isInterpreterOf(const Evidence& evidence, const std::string& script) {
    const auto end =
        evidence.words.begin() +
        std::min<std::ptrdiff_t>(3, static_cast<std::ptrdiff_t>(evidence.words.size()));
    return std::find(evidence.words.begin(), end, script) != end;
}

/// What the daemon and its copy processes have in common.
Judgement judgeCommon(const Evidence& evidence) {
    if (!isRunning(evidence.process)) {
        return no("has ended");
    }
    if (!evidence.sameNamespace) {
        return no("belongs to another pid namespace");
    }
    if (!leadsItsSession(evidence.process)) {
        return no("leads no session of its own");
    }
    return yes();
}

bool isTrusted(uid_t user) {
    return user == 0 || user == geteuid();
}

/// Whether it writes its PID file where this process looks for it: not so in a change of root.
bool sharesRunFolder(pid_t pid) {
    std::error_code error;
    const fs::path folder = fs::canonical("/var/run", error);
    return fileIdOf("/proc/" + std::to_string(pid) + "/root" + folder.string()) ==
           fileIdOf(folder.string());
}

std::vector<Process> findCopyProcesses(const Evidence& daemon) {
    std::vector<Process> found;
    for (const pid_t pid : childrenOf(daemon.process.pid)) {
        const std::optional<Evidence> evidence = gatherEvidence(pid);
        if (evidence && judgeChild(*evidence, daemon)) {
            found.push_back(evidence->process);
        }
    }
    return found;
}

/// Those of some processes that a daemon has left behind, ascending. Of other users' processes only
/// those that the daemon `named`.
std::vector<Process> orphansAmong(std::vector<pid_t> pids, const EndedDaemon& daemon, bool named) {
    const Program program = programAt(GLOBAL::rsyncCommand);
    std::vector<Process> found;
    std::sort(pids.begin(), pids.end());
    for (const pid_t pid : pids) {
        std::optional<Evidence> evidence = gatherEvidence(pid);
        if (!evidence) {
            continue;
        }
        if (isTrusted(evidence->user) || (named && runs(*evidence, program) == Runs::yes)) {
            evidence->words = commandLine(pid);
        }
        if (judgeOrphan(*evidence, program, daemon)) {
            found.push_back(evidence->process);
        }
    }
    return found;
}

std::string counted(const std::vector<Process>& processes, const std::string& kind) {
    const std::size_t count = processes.size();
    return std::to_string(count) + " " + kind + (count == 1 ? "" : "es") + " (" +
           listOfPids(processes) + ")";
}

std::string verb(const std::vector<Process>& processes) {
    return processes.size() == 1 ? "runs" : "run";
}

/// Looks through the processes of root, of this user and of the PID file's owner for daemons beside
/// `daemon`: any other user can run its program, but not so that it could write that file.
void search(const Program& program, DaemonProcesses& result) {
    // The kernel keeps 15 bytes of a name.
    const std::string name = fs::path(program.path).filename().string().substr(0, 15);
    std::vector<Process> candidates;
    for (const pid_t pid : allProcesses()) {
        const std::optional<Process> process = readProcess(pid);
        if (!process || !leadsItsSession(*process) || pid == result.pid()) {
            continue;
        }
        const std::optional<Evidence> evidence = gatherEvidence(pid);
        if (!evidence || (!isTrusted(evidence->user) && evidence->user != result.pidFile.owner)) {
            continue;
        }
        const Judgement judgement = judgeDaemonProgram(*evidence, program);
        if (judgement && sharesRunFolder(pid)) {
            candidates.push_back(*process);
        } else if (judgement.kind == Judgement::Kind::hidden && process->name == name) {
            result.hidden.push_back(*process);
        }
    }
    // Between its fork and its exec a copy process looks like the daemon.
    const auto isChild = [&](const Process& one) {
        return one.parent == result.pid() ||
               std::any_of(candidates.begin(), candidates.end(),
                           [&one](const Process& other) { return one.parent == other.pid; });
    };
    std::copy_if(candidates.begin(), candidates.end(), std::back_inserter(result.unvouched),
                 [&isChild](const Process& one) { return !isChild(one); });
}

/// Holds what the PID file says against the process that it names, and describes that if it is the
/// daemon. Else returns a clause that says why it is not.
std::string examine(const Program& program, DaemonProcesses& result) {
    const PidFile& file = result.pidFile;
    if (file.state == PidFile::State::absent) {
        return "there is no PID file";
    }
    if (file.state == PidFile::State::unreadable) {
        return file.problem;
    }
    if (file.state == PidFile::State::damaged) {
        return pidFilePath() + " is damaged (" + file.problem + ")";
    }
    const pid_t pid = file.daemon;
    const std::string named = "process " + std::to_string(pid) + " of " + pidFilePath() + " ";
    const std::optional<Evidence> evidence = gatherEvidence(pid);
    if (!evidence) {
        return named + "has ended";
    }
    Judgement judgement = judgeDaemonProgram(*evidence, program);
    if (judgement && !isTrusted(evidence->user) && evidence->user != file.owner) {
        judgement = no("belongs to another user");
    }
    const std::string name = fs::path(program.path).filename().string().substr(0, 15);
    if (judgement.kind == Judgement::Kind::hidden &&
        (evidence->process.name != name || evidence->user != file.owner)) {
        judgement = no("is not named " + name);
    }
    if (judgement.kind == Judgement::Kind::refuted) {
        return named + judgement.reason;
    }

    result.state = judgement ? DaemonState::running : DaemonState::seemsToRun;
    result.daemon = evidence->process;
    result.upSince = evidence->started;
    // Its owner could write the PID file: it is no stranger's memory.
    const std::vector<std::string> words = commandLine(pid);
    result.startOptions.assign(words.begin() + (words.empty() ? 0 : 1), words.end());
    result.copyProcesses = findCopyProcesses(*evidence);
    const std::string number = std::to_string(pid);
    result.text = GLOBAL::progName +
                  (judgement ? " runs as process " + number
                             : " seems to run: process " + number + ", " + name + ",") +
                  " since " + localTime(evidence->started);
    if (!result.copyProcesses.empty()) {
        result.text += ", with " + counted(result.copyProcesses, "copy process");
    }
    if (!judgement) {
        result.text += "; only root can be sure";
    }
    constexpr std::string_view deleted = " (deleted)";
    const std::string& path = evidence->executable;
    if (path.size() > deleted.size() &&
        path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0) {
        result.text += "; its program was replaced since: a restart runs the new one";
    }
    return {};
}

void describeNotRunning(const std::string& problem, const Program& program,
                        DaemonProcesses& result) {
    using State = DaemonProcesses::State;
    const std::string uncertain = "whether " + GLOBAL::progName + " runs is uncertain: " + problem;
    if (!result.unvouched.empty()) {
        result.text = uncertain + ", but " + counted(result.unvouched, "process") + " " +
                      verb(result.unvouched) + " " + program.path;
    } else if (!result.hidden.empty()) {
        result.text = uncertain + ", but only root may look at " +
                      counted(result.hidden, "process") + " of its name";
    } else if (result.pidFile.state == PidFile::State::unreadable) {
        result.text = uncertain + ", and no process runs " + program.path;
    } else if (result.pidFile.state == PidFile::State::absent) {
        result.state = State::notRunning;
        result.text = GLOBAL::progName + " does not run";
    } else {
        result.state = State::dead;
        result.text = GLOBAL::progName + " is dead: " + problem;
    }
    if (!result.copyProcesses.empty()) {
        result.text += "; it left " + counted(result.copyProcesses, "copy process") + " that " +
                       (result.copyProcesses.size() == 1 ? "runs" : "run");
    }
}

} // namespace

Program programAt(const std::string& path) {
    Program program;
    std::error_code error;
    program.path = fs::weakly_canonical(fs::absolute(path, error), error).string();
    if (error || program.path.empty()) {
        program.path = path;
    }
    program.identity = fileIdOf(program.path);
    program.isScript = readFile(program.path, 2).text == "#!";
    return program;
}

std::optional<Evidence> gatherEvidence(pid_t pid) {
    const std::optional<Process> before = readProcess(pid);
    if (!before || !isRunning(*before)) {
        return std::nullopt;
    }
    Evidence evidence;
    evidence.started = startTime(*before);
    evidence.user = userOf(pid).value_or(static_cast<uid_t>(-1));
    evidence.sameNamespace = sharesPidNamespace(pid);
    evidence.executable = executable(pid);
    evidence.executed = fileIdOf("/proc/" + std::to_string(pid) + "/exe");
    // All of it was one process' only if that has its number still.
    const std::optional<Process> after = readProcess(pid);
    if (!after || !isRunning(*after) || after->startTicks != before->startTicks) {
        return std::nullopt;
    }
    evidence.process = *after;
    return evidence;
}

Judgement judgeDaemonProgram(const Evidence& evidence, const Program& daemon) {
    Judgement common = judgeCommon(evidence);
    if (!common) {
        return common;
    }
    if (evidence.process.pid == getpid()) {
        return no("is skarnctl itself");
    }
    switch (runs(evidence, daemon)) {
    case Runs::yes:
        return yes();
    case Runs::hidden:
        return hidden();
    case Runs::no:
        break;
    }
    return no("runs another program (" + evidence.executable + ")");
}

Judgement judgeChild(const Evidence& evidence, const Evidence& daemon) {
    if (!isRunning(evidence.process)) {
        return no("has ended");
    }
    if (evidence.process.parent != daemon.process.pid) {
        return no("is no child of the daemon");
    }
    if (!leadsItsSession(evidence.process)) {
        return no("leads no session of its own");
    }
    if (evidence.process.startTicks < daemon.process.startTicks) {
        return no("started before the daemon");
    }
    return yes();
}

Judgement judgeOrphan(const Evidence& evidence, const Program& copyProgram,
                      const EndedDaemon& daemon) {
    Judgement common = judgeCommon(evidence);
    if (!common) {
        return common;
    }
    if (evidence.process.pid == getpid()) {
        return no("is skarnctl itself");
    }
    if (evidence.process.parent == daemon.pid) {
        return no("is a child of what has the daemon's number now");
    }
    const Runs program = runs(evidence, copyProgram);
    if (program == Runs::hidden) {
        return hidden();
    }
    const bool isScript = copyProgram.isScript && isInterpreterOf(evidence, GLOBAL::rsyncCommand);
    if (program == Runs::no && !isScript) {
        return no("runs another program (" + evidence.executable + ")");
    }
    const std::string list = "--files-from=/tmp/file_list_" + std::to_string(daemon.pid) + "_";
    const bool hasList =
        std::any_of(evidence.words.begin(), evidence.words.end(), [&list](const std::string& word) {
            return word.compare(0, list.size(), list) == 0;
        });
    if (!hasList) {
        return no("has no file list of the daemon");
    }
    if (evidence.started > daemon.ended + forgivenSeconds) {
        return no("started after the PID file was written");
    }
    if (evidence.started < daemon.started - forgivenSeconds) {
        return no("started before the daemon");
    }
    return yes();
}

std::vector<Process> findOrphans(const EndedDaemon& daemon) {
    return orphansAmong(allProcesses(), daemon, false);
}

std::vector<Process> findSessionMembers(const Process& leader) {
    std::vector<Process> found;
    for (const pid_t pid : allProcesses()) {
        const std::optional<Process> process = readProcess(pid);
        if (!process) {
            continue;
        }
        if (pid == leader.pid && process->startTicks != leader.startTicks) {
            return {};
        }
        if (pid != leader.pid && process->session == leader.pid && isRunning(*process) &&
            process->startTicks >= leader.startTicks) {
            found.push_back(*process);
        }
    }
    return found;
}

DaemonProcesses findDaemon(const std::string& daemonPath, Search extent) {
    const Program program = programAt(daemonPath);
    DaemonProcesses result;
    result.pidFile = readPidFile();
    const std::string problem = examine(program, result);
    const bool runs = problem.empty();
    if (!runs || extent == Search::always) {
        search(program, result);
    }
    if (!runs) {
        if (result.pidFile.state == PidFile::State::whole) {
            EndedDaemon ended;
            ended.pid = result.pidFile.daemon;
            ended.ended = result.pidFile.written;
            result.copyProcesses = orphansAmong(result.pidFile.copyProcesses, ended, true);
        }
        describeNotRunning(problem, program, result);
    } else if (!result.unvouched.empty()) {
        result.text += "; but " + counted(result.unvouched, "more process") + " " +
                       verb(result.unvouched) + " as a daemon, too: " + twoDaemons;
    }
    return result;
}

const char* nameOf(DaemonState state) {
    switch (state) {
    case DaemonState::running:
        return "running";
    case DaemonState::seemsToRun:
        return "seems_to_run";
    case DaemonState::dead:
        return "dead";
    case DaemonState::notRunning:
        return "not_running";
    case DaemonState::unknown:
        break;
    }
    return "unknown";
}

std::string listOfPids(const std::vector<Process>& processes) {
    std::string list;
    for (std::size_t i = 0; i < processes.size(); ++i) {
        if (i > 0) {
            list += i + 1 == processes.size() ? " and " : ", ";
        }
        list += std::to_string(processes[i].pid);
    }
    return list;
}

} // namespace control
