// Which processes are the daemon and its copy processes, whatever the PID file claims.
#include "control/service/daemon_processes.h"

#include "control/display_text.h"
#include "control/file.h"
#include "daemon/global.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <unistd.h>

namespace control {

namespace {

namespace fs = std::filesystem;
using Kind = Judgement::Kind;

/// How far the start of a process and the time of a file may be apart the wrong way round: ticks
/// are rounded, file systems use a coarse clock, and a leap second may lie between.
constexpr double forgivenSeconds = 2;

constexpr std::string_view deleted = " (deleted)";

/// What speaks against a claim, or hides whether it is true.
struct Objection {
    bool holds;
    std::string reason;
    Kind kind = Kind::refuted;
};

/// By the first objection that holds.
Judgement judge(const std::vector<Objection>& objections) {
    for (const Objection& objection : objections) {
        if (objection.holds) {
            return {objection.kind, objection.reason};
        }
    }
    return {Kind::confirmed, {}};
}

bool leadsItsSession(const Process& process) {
    return process.session == process.pid && process.group == process.pid;
}

bool runs(const Evidence& evidence, const Program& program) {
    return evidence.executable == program.path ||
           evidence.executable == program.path + std::string(deleted) ||
           (program.identity && evidence.executed == program.identity);
}

/// What the daemon and its copy processes have in common.
Judgement judgeProgram(const Evidence& evidence, bool isOfProgram) {
    return judge({
        {!isRunning(evidence.process), "has ended"},
        {!evidence.sameNamespace, "belongs to another pid namespace"},
        {!leadsItsSession(evidence.process), "leads no session of its own"},
        {evidence.process.pid == getpid(), "is skarnctl itself"},
        {evidence.executable.empty(), "may be looked at only by root", Kind::hidden},
        {!isOfProgram, "runs another program (" + evidence.executable + ")"},
    });
}

bool isTrusted(uid_t user) {
    return user == 0 || user == geteuid();
}

/// The name that its processes have: the kernel keeps 15 bytes of it.
std::string nameOf(const Program& program) {
    return fs::path(program.path).filename().string().substr(0, 15);
}

/// Whether it writes its PID file where this process looks for it: not so in a change of root.
bool sharesRunFolder(pid_t pid) {
    std::error_code error;
    const fs::path folder = fs::canonical("/var/run", error);
    return fileIdOf("/proc/" + std::to_string(pid) + "/root" + folder.string()) ==
           fileIdOf(folder.string());
}

/// Those of some processes that a daemon has left behind, ascending. Of other users' processes only
/// those that the daemon `named`.
std::vector<Process> orphansAmong(std::vector<pid_t> pids, const EndedDaemon& daemon, bool named) {
    const Program program = programAt(GLOBAL::rsyncCommand);
    std::vector<Process> found;
    std::sort(pids.begin(), pids.end());
    for (const pid_t pid : pids) {
        std::optional<Evidence> evidence = gatherEvidence(pid);
        if (evidence && (isTrusted(evidence->user) || (named && runs(*evidence, program)))) {
            evidence->words = commandLine(pid);
        }
        if (evidence && judgeOrphan(*evidence, program, daemon)) {
            found.push_back(evidence->process);
        }
    }
    return found;
}

/// "2 processes (812 and 813)", followed by one of two words.
std::string counted(const std::vector<Process>& processes, const std::string& kind,
                    const char* ifOne = "", const char* ifMore = "") {
    const bool isOne = processes.size() == 1;
    return std::to_string(processes.size()) + " " + kind + (isOne ? "" : "es") + " (" +
           listOfPids(processes) + ")" + (isOne ? ifOne : ifMore);
}

/// Looks through the processes of root, of this user and of the PID file's owner for daemons beside
/// the one that was found: any other user can run its program, but not so that it could write that
/// file.
void search(const Program& program, DaemonProcesses& result) {
    std::vector<Process>& found = result.unvouched;
    for (const pid_t pid : allProcesses()) {
        const std::optional<Process> process = readProcess(pid);
        const bool isCandidate = process && leadsItsSession(*process) && pid != result.pid();
        const std::optional<Evidence> evidence =
            isCandidate ? gatherEvidence(pid) : std::optional<Evidence>();
        if (!evidence || (!isTrusted(evidence->user) && evidence->user != result.pidFile.owner)) {
            continue;
        }
        const Judgement judgement = judgeDaemonProgram(*evidence, program);
        if (judgement && sharesRunFolder(pid)) {
            found.push_back(*process);
        } else if (judgement.kind == Kind::hidden && process->name == nameOf(program)) {
            result.hidden.push_back(*process);
        }
    }
    // Between its fork and its exec a copy process looks like the daemon.
    const std::vector<Process> all = found;
    const auto isChild = [&](const Process& one) {
        const auto isParent = [&one](const Process& other) { return one.parent == other.pid; };
        return one.parent == result.pid() || std::any_of(all.begin(), all.end(), isParent);
    };
    found.erase(std::remove_if(found.begin(), found.end(), isChild), found.end());
}

/// Holds what the PID file says against the process that it names, and describes that if it is the
/// daemon. Else returns a clause that says why it is not.
std::string examine(const Program& program, DaemonProcesses& result) {
    const PidFile& file = result.pidFile;
    switch (file.state) {
    case PidFile::State::absent:
        return "there is no PID file";
    case PidFile::State::unreadable:
        return file.problem;
    case PidFile::State::damaged:
        return pidFilePath() + " is damaged (" + file.problem + ")";
    case PidFile::State::whole:
        break;
    }
    const pid_t pid = file.daemon;
    const std::string number = std::to_string(pid);
    const std::string named = "process " + number + " of " + pidFilePath() + " ";
    const std::optional<Evidence> evidence = gatherEvidence(pid);
    if (!evidence) {
        return named + "has ended";
    }
    const Judgement runsIt = judgeDaemonProgram(*evidence, program);
    const bool isOwners = evidence->user == file.owner;
    const bool isHidden = runsIt.kind == Kind::hidden;
    const Judgement judgement = judge({
        {runsIt.kind == Kind::refuted, runsIt.reason},
        {!isHidden && !isTrusted(evidence->user) && !isOwners, "belongs to another user"},
        {isHidden && (!isOwners || evidence->process.name != nameOf(program)),
         "is not named " + nameOf(program)},
    });
    if (!judgement) {
        return named + judgement.reason;
    }

    result.state = isHidden ? DaemonState::seemsToRun : DaemonState::running;
    result.daemon = evidence->process;
    result.upSince = evidence->started;
    // Its owner could write the PID file: it is no stranger's memory.
    result.startOptions = commandLine(pid);
    if (!result.startOptions.empty()) {
        result.startOptions.erase(result.startOptions.begin());
    }
    for (const pid_t child : childrenOf(pid)) {
        const std::optional<Evidence> copy = gatherEvidence(child);
        if (copy && judgeChild(*copy, *evidence)) {
            result.copyProcesses.push_back(copy->process);
        }
    }
    const std::string& path = evidence->executable;
    const bool isReplaced =
        path.size() > deleted.size() && path.substr(path.size() - deleted.size()) == deleted;
    result.text =
        GLOBAL::progName +
        (isHidden ? " seems to run: process " + number + ", " + nameOf(program) + ","
                  : " runs as process " + number) +
        " since " + localTime(evidence->started) +
        (result.copyProcesses.empty() ? ""
                                      : ", with " + counted(result.copyProcesses, "copy process")) +
        (isHidden ? "; only root can be sure" : "") +
        (isReplaced ? "; its program was replaced since: a restart runs the new one" : "");
    return {};
}

void describeNotRunning(const std::string& problem, const Program& program,
                        DaemonProcesses& result) {
    const std::string& name = GLOBAL::progName;
    const std::string uncertain = "whether " + name + " runs is uncertain: " + problem;
    if (!result.unvouched.empty()) {
        result.text = uncertain + ", but " +
                      counted(result.unvouched, "process", " runs ", " run ") + program.path;
    } else if (!result.hidden.empty()) {
        result.text = uncertain + ", but only root may look at " +
                      counted(result.hidden, "process") + " of its name";
    } else if (result.pidFile.state == PidFile::State::unreadable) {
        result.text = uncertain + ", and no process runs " + program.path;
    } else {
        const bool isDead = result.pidFile.state != PidFile::State::absent;
        result.state = isDead ? DaemonState::dead : DaemonState::notRunning;
        result.text = isDead ? name + " is dead: " + problem : name + " does not run";
    }
    if (!result.copyProcesses.empty()) {
        result.text +=
            "; it left " + counted(result.copyProcesses, "copy process", " that runs", " that run");
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
    return judgeProgram(evidence, runs(evidence, daemon));
}

Judgement judgeChild(const Evidence& evidence, const Evidence& daemon) {
    return judge({
        {!isRunning(evidence.process), "has ended"},
        {evidence.process.parent != daemon.process.pid, "is no child of the daemon"},
        {!leadsItsSession(evidence.process), "leads no session of its own"},
        {evidence.process.startTicks < daemon.process.startTicks, "started before the daemon"},
    });
}

Judgement judgeOrphan(const Evidence& evidence, const Program& copyProgram,
                      const EndedDaemon& daemon) {
    const std::vector<std::string>& words = evidence.words;
    // A script's path stands behind its interpreter and that one's own option.
    const auto end =
        words.begin() + std::min<std::ptrdiff_t>(3, std::distance(words.begin(), words.end()));
    const bool isScript =
        copyProgram.isScript && std::find(words.begin(), end, GLOBAL::rsyncCommand) != end;
    const std::string list = "--files-from=/tmp/file_list_" + std::to_string(daemon.pid) + "_";
    const auto isList = [&list](const std::string& word) {
        return word.compare(0, list.size(), list) == 0;
    };
    const Judgement program = judgeProgram(evidence, isScript || runs(evidence, copyProgram));
    return judge({
        {program.kind == Kind::refuted, program.reason},
        {evidence.process.parent == daemon.pid, "is a child of what has the daemon's number now"},
        {!program, program.reason, program.kind},
        {std::none_of(words.begin(), words.end(), isList), "has no file list of the daemon"},
        {evidence.started > daemon.ended + forgivenSeconds,
         "started after the PID file was written"},
        {evidence.started < daemon.started - forgivenSeconds, "started before the daemon"},
    });
}

std::vector<Process> findOrphans(const EndedDaemon& daemon) {
    return orphansAmong(allProcesses(), daemon, false);
}

std::vector<Process> findSessionMembers(const Process& leader) {
    std::vector<Process> found;
    for (const pid_t pid : allProcesses()) {
        const std::optional<Process> process = readProcess(pid);
        if (process && pid == leader.pid && process->startTicks != leader.startTicks) {
            return {};
        }
        if (process && pid != leader.pid && process->session == leader.pid && isRunning(*process) &&
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
    if (!problem.empty() || extent == Search::always) {
        search(program, result);
    }
    if (!problem.empty()) {
        if (result.pidFile.state == PidFile::State::whole) {
            result.copyProcesses =
                orphansAmong(result.pidFile.copyProcesses,
                             {result.pidFile.daemon, 0, result.pidFile.written}, true);
        }
        describeNotRunning(problem, program, result);
    } else if (!result.unvouched.empty()) {
        result.text += "; but " + counted(result.unvouched, "more process", " runs", " run") +
                       " as a daemon, too: they spoil each other's work, stop ends them all";
    }
    return result;
}

LoadedConfiguration loadDaemonsConfiguration(const std::string& daemonPath) {
    return loadConfiguration(findConfigFile().value_or(configFilePaths().front()),
                             findDaemon(daemonPath).startOptions);
}

const char* nameOf(DaemonState state) {
    static constexpr const char* names[] = {"running", "seems_to_run", "dead", "not_running",
                                            "unknown"};
    return names[static_cast<int>(state)];
}

std::string listOfPids(const std::vector<Process>& processes) {
    std::string list;
    for (std::size_t i = 0; i < processes.size(); ++i) {
        list += i == 0 ? "" : i + 1 == processes.size() ? " and " : ", ";
        list += std::to_string(processes[i].pid);
    }
    return list;
}

} // namespace control
