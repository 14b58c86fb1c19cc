// Which processes are the daemon and its copy processes, whatever the PID file claims.
#include "control/service/daemon_processes.h"

#include "daemon/global.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <unistd.h>

namespace control {

namespace {

namespace fs = std::filesystem;

/// How far the start of a process and the time of a file may be apart the wrong way round: ticks
/// are rounded, file systems use a coarse clock, and a leap second may lie between.
constexpr double forgivenSeconds = 2;

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

/// Those lines of the PID file that are still copy processes of the daemon that wrote it.
std::vector<Process> findNamedOrphans(const PidFile& file) {
    std::vector<Process> found;
    const Program program = programAt(GLOBAL::rsyncCommand);
    EndedDaemon daemon;
    daemon.pid = file.daemon;
    daemon.ended = file.written;
    for (const pid_t pid : file.copyProcesses) {
        const std::optional<Evidence> evidence = gatherEvidence(pid);
        if (evidence && judgeOrphan(*evidence, program, daemon)) {
            found.push_back(evidence->process);
        }
    }
    std::sort(found.begin(), found.end(),
              [](const Process& one, const Process& other) { return one.pid < other.pid; });
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

/// What a look through all processes gave.
struct SearchResult {
    std::vector<Process> found;  // they run the program as a daemon
    std::vector<Process> hidden; // of its name, but this user may not look at them
};

/// Looks among root's processes, this user's and those of the PID file's owner: any other user can
/// run the daemon's program, but not as a daemon that could write that file.
SearchResult search(const Program& program, const PidFile& file) {
    // The kernel keeps 15 bytes of a name.
    const std::string name = fs::path(program.path).filename().string().substr(0, 15);
    SearchResult result;
    std::vector<Process> candidates;
    for (const pid_t pid : allProcesses()) {
        const std::optional<Evidence> evidence = gatherEvidence(pid);
        if (!evidence ||
            (evidence->user != 0 && evidence->user != geteuid() && evidence->user != file.owner)) {
            continue;
        }
        const Judgement judgement = judgeDaemonProgram(*evidence, program);
        if (judgement) {
            candidates.push_back(evidence->process);
        } else if (judgement.kind == Judgement::Kind::hidden && evidence->process.name == name) {
            result.hidden.push_back(evidence->process);
        }
    }
    // Between its fork and its exec a copy process looks like the daemon.
    for (const Process& one : candidates) {
        const bool isChild =
            std::any_of(candidates.begin(), candidates.end(),
                        [&one](const Process& other) { return one.parent == other.pid; });
        if (!isChild) {
            result.found.push_back(one);
        }
    }
    return result;
}

/// What the PID file says, held against the process that it names.
struct Claim {
    std::optional<Evidence> daemon; // when it is true
    std::string problem;            // a clause that says why it is not
    bool isHidden = false;          // it may be true, but this user may not look
};

Claim examine(const PidFile& file, const Program& program) {
    Claim claim;
    switch (file.state) {
    case PidFile::State::absent:
        claim.problem = "there is no PID file";
        return claim;
    case PidFile::State::unreadable:
        claim.problem = file.problem;
        return claim;
    case PidFile::State::damaged:
        claim.problem = pidFilePath() + " is damaged (" + file.problem + ")";
        return claim;
    case PidFile::State::whole:
        break;
    }
    std::optional<Evidence> evidence = gatherEvidence(file.daemon);
    const Judgement judgement =
        evidence ? judgeDaemon(*evidence, program, file.written) : no("has ended");
    if (judgement) {
        claim.daemon = std::move(evidence);
        return claim;
    }
    claim.isHidden = judgement.kind == Judgement::Kind::hidden;
    claim.problem =
        "process " + std::to_string(file.daemon) + " of " + pidFilePath() + " " + judgement.reason;
    return claim;
}

void describeRunning(const Evidence& daemon, DaemonProcesses& result) {
    result.state = DaemonProcesses::State::running;
    result.daemon = daemon.process;
    result.upSince = daemon.started;
    if (!daemon.words.empty()) {
        result.startOptions.assign(daemon.words.begin() + 1, daemon.words.end());
    }
    result.copyProcesses = findCopyProcesses(daemon);
    result.text = GLOBAL::progName + " runs as process " + std::to_string(daemon.process.pid) +
                  " since " + localTime(daemon.started);
    if (!result.copyProcesses.empty()) {
        result.text += ", with " + counted(result.copyProcesses, "copy process");
    }
}

void describeNotRunning(const Claim& claim, const SearchResult& others, const Program& program,
                        DaemonProcesses& result) {
    using State = DaemonProcesses::State;
    const std::string uncertain = "whether " + GLOBAL::progName + " runs is uncertain: ";
    if (!others.found.empty()) {
        result.state = State::unknown;
        result.text = uncertain + claim.problem + ", but " + counted(others.found, "process") +
                      " " + verb(others.found) + " " + program.path;
    } else if (claim.isHidden) {
        result.state = State::unknown;
        result.text = uncertain + claim.problem;
    } else if (!others.hidden.empty()) {
        result.state = State::unknown;
        result.text = uncertain + claim.problem + ", but only root may look at " +
                      counted(others.hidden, "process") + " of its name";
    } else if (result.pidFile.state == PidFile::State::unreadable) {
        result.state = State::unknown;
        result.text = uncertain + claim.problem + ", and no process runs " + program.path;
    } else if (result.pidFile.state == PidFile::State::absent) {
        result.state = State::notRunning;
        result.text = GLOBAL::progName + " does not run";
    } else {
        result.state = State::dead;
        result.text = GLOBAL::progName + " is dead: " + claim.problem;
    }
    if (!result.copyProcesses.empty()) {
        result.text += "; it left " + counted(result.copyProcesses, "copy process") +
                       (result.copyProcesses.size() == 1 ? " that runs" : " that run");
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
    std::ifstream file;
    if (fs::is_regular_file(program.path, error)) {
        file.open(program.path, std::ios::binary);
    }
    char first[2] = {};
    program.isScript = file.read(first, sizeof first) && first[0] == '#' && first[1] == '!';
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
    evidence.words = commandLine(pid);
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

Judgement judgeDaemon(const Evidence& evidence, const Program& daemon, double written) {
    Judgement program = judgeDaemonProgram(evidence, daemon);
    if (program && evidence.started > written + forgivenSeconds) {
        return no("started after the PID file was written");
    }
    return program;
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

std::vector<Process> findDaemonPrograms(const std::string& daemonPath) {
    return search(programAt(daemonPath), readPidFile()).found;
}

std::vector<Process> findOrphans(const EndedDaemon& daemon) {
    const Program program = programAt(GLOBAL::rsyncCommand);
    std::vector<Process> found;
    for (const pid_t pid : allProcesses()) {
        const std::optional<Evidence> evidence = gatherEvidence(pid);
        if (evidence && judgeOrphan(*evidence, program, daemon)) {
            found.push_back(evidence->process);
        }
    }
    return found;
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

DaemonProcesses findDaemon(const std::string& daemonPath) {
    const Program program = programAt(daemonPath);
    DaemonProcesses result;
    result.pidFile = readPidFile();
    Claim claim = examine(result.pidFile, program);
    if (claim.daemon) {
        describeRunning(*claim.daemon, result);
        return result;
    }
    if (result.pidFile.state == PidFile::State::whole) {
        result.copyProcesses = findNamedOrphans(result.pidFile);
    }
    const SearchResult others = search(program, result.pidFile);
    result.unvouched = others.found;
    describeNotRunning(claim, others, program, result);
    return result;
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

std::string localTime(double secondsSince1970) {
    const auto time = static_cast<time_t>(secondsSince1970);
    tm parts = {};
    char text[64] = "";
    if (localtime_r(&time, &parts) == nullptr ||
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts) == 0) {
        return "an unknown time";
    }
    return text;
}

} // namespace control
