// Who reads the hand-off pipe, found out without touching it.
#include "control/consumer_pipe.h"

#include "control/file.h"
#include "control/process.h"
#include "daemon/global.h"
#include "utilities/descriptors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace control {

namespace {

namespace fs = std::filesystem;

/// The names in a folder; nothing if it may not be looked at. One that has gone is empty.
std::optional<std::vector<std::string>> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        names.push_back(entry->path().filename().string());
    }
    if (error == std::errc::permission_denied || error == std::errc::operation_not_permitted) {
        return std::nullopt;
    }
    return names;
}

/// True if the process has no descriptors at all: the kernel's own, and those that have ended.
/// Anybody may see that of any process, unless /proc hides the others.
bool hasNoMemory(pid_t pid) {
    return !statusNumbers(pid, "Uid").empty() && statusNumbers(pid, "VmSize").empty();
}

/// The answer to whether a process reads a file.
enum class Answer { no, yes, notAllowed };

Answer holdsForReading(pid_t pid, const FileId& pipe) {
    const std::string process = "/proc/" + std::to_string(pid);
    const std::optional<std::vector<std::string>> descriptors = namesIn(process + "/fd");
    if (!descriptors) {
        return Answer::notAllowed;
    }
    const std::string files = process + "/fd/";
    const std::string modes = process + "/fdinfo/";
    for (const std::string& descriptor : *descriptors) {
        const std::optional<FileId> file = fileIdOf(files + descriptor);
        if (file && *file == pipe && isOpenForReading(readProcFile(modes + descriptor))) {
            return Answer::yes;
        }
    }
    return Answer::no;
}

/// The text, ended by a NUL, at an address in a process's memory; empty if there is none.
std::string textAt(pid_t pid, std::uint64_t address) {
    const Descriptor memory(
        open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, PATH_MAX> text = {};
    // What lies behind the text may end with its page: then less is read than was asked for.
    const ssize_t got =
        pread(memory.get(), text.data(), text.size() - 1, static_cast<off_t>(address));
    return got > 0 ? std::string(text.data()) : std::string();
}

/// The text of a thread's file in /proc; nothing, errno set, if it can't be read.
std::optional<std::string> readThreadFile(pid_t pid, const std::string& thread, const char* name) {
    const std::string path = "/proc/" + std::to_string(pid) + "/task/" + thread + "/" + name;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> text = {};
    const ssize_t got = read(file.get(), text.data(), text.size());
    return got < 0 ? std::nullopt
                   : std::optional(std::string(text.data(), static_cast<std::size_t>(got)));
}

/// Whether a process has asked to read the file and waits for a writer: it has no descriptor yet.
/// Whoever it is no pipe for is not asked for the path: his memory may make its reader wait for
/// ever.
Answer waitsForWriter(pid_t pid, ReadRight right, const FileId& pipe) {
    const std::string process = "/proc/" + std::to_string(pid);
    const std::optional<std::vector<std::string>> threads = namesIn(process + "/task");
    if (!threads) {
        return Answer::notAllowed;
    }
    for (const std::string& thread : *threads) {
        const std::optional<std::string> text = readThreadFile(pid, thread, "syscall");
        if (!text && (errno == EPERM || errno == EACCES)) {
            return Answer::notAllowed;
        }
        const std::optional<PendingCall> pending =
            text ? parsePendingCall(*text) : std::optional<PendingCall>();
        if (!pending || pending->kind != PendingCall::Kind::openToRead) {
            continue; // the thread has ended, or does something else
        }
        if (right != ReadRight::asItsOwn) {
            return Answer::notAllowed;
        }
        const std::string name = textAt(pid, pending->pathAddress);
        const bool isWhole = !name.empty() && name.front() == '/';
        std::string path = process;
        if (isWhole) {
            path += "/root";
        } else if (pending->descriptor == AT_FDCWD) {
            path += "/cwd/";
        } else {
            path.append("/fd/").append(std::to_string(pending->descriptor)).append("/");
        }
        const std::optional<FileId> found = fileIdOf(path + name);
        if (!name.empty() && found && *found == pipe) {
            return Answer::yes;
        }
    }
    return Answer::no;
}

} // namespace

bool isOpenForReading(std::string_view fdinfo) {
    const std::vector<std::uint64_t> flags = statusNumbers(fdinfo, "flags", 8);
    if (flags.empty() || (flags.front() & O_PATH) != 0) {
        return false; // one that was opened as a mere place shows the same access as for reading
    }
    const std::uint64_t access = flags.front() & O_ACCMODE;
    return access == O_RDONLY || access == O_RDWR;
}

ReadRight readRight(std::string_view status, uid_t owner, gid_t group, mode_t mode) {
    // Real, effective, saved and for file systems: whichever it could take on.
    const std::vector<std::uint64_t> users = statusNumbers(status, "Uid");
    if (users.empty() || std::any_of(users.begin(), users.end(), [owner](std::uint64_t user) {
            return user == 0 || user == owner;
        })) {
        return ReadRight::asItsOwn;
    }
    std::vector<std::uint64_t> groups = statusNumbers(status, "Gid");
    const std::vector<std::uint64_t> more = statusNumbers(status, "Groups");
    groups.insert(groups.end(), more.begin(), more.end());
    if ((mode & S_IRGRP) != 0 && std::find(groups.begin(), groups.end(), group) != groups.end()) {
        return ReadRight::asItsOwn;
    }
    return (mode & S_IROTH) != 0 ? ReadRight::asAnybody : ReadRight::none;
}

std::optional<PendingCall> parsePendingCall(std::string_view text) {
    // NUMBER ARGUMENT1 ... ARGUMENT6 STACK PROGRAM, or "running".
    std::istringstream words{std::string(text)};
    long number = -1;
    std::array<std::string, 6> arguments;
    words >> number;
    for (std::string& argument : arguments) {
        words >> argument;
    }
    if (!words) {
        return std::nullopt;
    }
    const auto value = [&arguments](std::size_t index) {
        return static_cast<std::uint64_t>(std::strtoull(arguments[index].c_str(), nullptr, 16));
    };
    PendingCall pending;
    pending.descriptor = static_cast<int>(static_cast<std::uint32_t>(value(0)));
    std::uint64_t flags = 0;
    if (number == SYS_write) {
        pending.kind = PendingCall::Kind::write;
        return pending;
    }
    if (number == SYS_openat) {
        pending.pathAddress = value(1);
        flags = value(2);
#ifdef SYS_open // the newer machines have no such call
    } else if (number == SYS_open) {
        pending.descriptor = AT_FDCWD;
        pending.pathAddress = value(0);
        flags = value(1);
#endif
    } else {
        return std::nullopt;
    }
    pending.kind = (flags & O_ACCMODE) == O_WRONLY ? PendingCall::Kind::openToWrite
                                                   : PendingCall::Kind::openToRead;
    return pending;
}

std::optional<std::vector<PipeWait>> findPipeWaits(pid_t daemon) {
    const std::string process = "/proc/" + std::to_string(daemon);
    std::vector<PipeWait> waits;
    for (const std::string& thread :
         namesIn(process + "/task").value_or(std::vector<std::string>())) {
        const std::optional<std::string> text = readThreadFile(daemon, thread, "syscall");
        if (!text && (errno == EPERM || errno == EACCES)) {
            return std::nullopt;
        }
        const std::optional<PendingCall> pending =
            text ? parsePendingCall(*text) : std::optional<PendingCall>();
        if (!pending || pending->kind == PendingCall::Kind::openToRead) {
            continue;
        }
        PipeWait wait;
        wait.opens = pending->kind == PendingCall::Kind::openToWrite;
        if (wait.opens) {
            if (textAt(daemon, pending->pathAddress) != GLOBAL::pathToVantrelFifo) {
                continue;
            }
        } else {
            // It writes into no other pipe.
            struct statx status = {};
            const std::string file = process + "/fd/" + std::to_string(pending->descriptor);
            if (statx(AT_FDCWD, file.c_str(), AT_STATX_DONT_SYNC, STATX_TYPE, &status) != 0 ||
                !S_ISFIFO(status.stx_mode)) {
                continue;
            }
        }
        const std::vector<std::uint64_t> switches = statusNumbers(
            readThreadFile(daemon, thread, "status").value_or(""), "voluntary_ctxt_switches");
        wait.thread = static_cast<pid_t>(std::strtol(thread.c_str(), nullptr, 10));
        wait.switches = switches.empty() ? 0 : switches.front();
        waits.push_back(wait);
    }
    return waits;
}

PipeSnapshot lookAtConsumerPipe(const std::string& path) {
    PipeSnapshot snapshot;
    snapshot.path = path;
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        snapshot.state = errno == ENOENT || errno == ENOTDIR ? PipeSnapshot::State::absent
                                                             : PipeSnapshot::State::unknown;
        return snapshot;
    }
    if (!S_ISFIFO(status.st_mode)) {
        snapshot.state = PipeSnapshot::State::notAPipe;
        return snapshot;
    }
    const FileId pipe{status.st_dev, status.st_ino};
    const std::vector<pid_t> processes = allProcesses();
    std::vector<std::pair<pid_t, ReadRight>> candidates;
    for (const pid_t pid : processes) {
        const std::string process = readProcFile("/proc/" + std::to_string(pid) + "/status");
        const ReadRight right = readRight(process, status.st_uid, status.st_gid, status.st_mode);
        if (right != ReadRight::none) {
            candidates.emplace_back(pid, right);
        }
    }
    // The first process is always there; unless it is hidden, and others are too.
    bool allSeen = !processes.empty() && processes.front() == 1;
    // The second, dearer question is for a pipe that nobody seems to read.
    for (const bool waits : {false, true}) {
        for (const auto& [pid, right] : candidates) {
            const Answer answer =
                waits ? waitsForWriter(pid, right, pipe) : holdsForReading(pid, pipe);
            if (answer == Answer::notAllowed && !hasNoMemory(pid)) {
                allSeen = false;
            }
            if (answer == Answer::yes) {
                const std::optional<Process> process = readProcess(pid);
                snapshot.readers.push_back((process ? process->name : "?") + " (" +
                                           std::to_string(pid) + ")");
            }
        }
        if (!snapshot.readers.empty()) {
            snapshot.state = PipeSnapshot::State::read;
            return snapshot;
        }
    }
    snapshot.state = allSeen ? PipeSnapshot::State::noReader : PipeSnapshot::State::unknown;
    return snapshot;
}

} // namespace control
