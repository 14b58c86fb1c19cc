// Who reads the hand-off pipe, found out without touching it.
#include "control/consumer_pipe.h"

#include "control/file.h"
#include "control/process.h"
#include "daemon/global.h"
#include "shares/files.h"
#include "utilities/descriptors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <iomanip>
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
        if (fileIdOf(files + descriptor) == pipe &&
            isOpenForReading(readProcFile(modes + descriptor))) {
            return Answer::yes;
        }
    }
    return Answer::no;
}

/// The text, ended by a NUL, at an address in a process's memory; empty if there is none.
std::string textAt(const std::string& process, std::uint64_t address) {
    const Descriptor memory(open((process + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, PATH_MAX> text = {};
    // What lies behind the text may end with its page: then less is read than was asked for.
    const ssize_t got =
        pread(memory.get(), text.data(), text.size() - 1, static_cast<off_t>(address));
    return got > 0 ? std::string(text.data()) : std::string();
}

std::string threadFile(const std::string& process, const std::string& thread, const char* name) {
    return process + "/task/" + thread + "/" + name;
}

/// The pending calls of a process, with their threads. Nothing if it may not be looked at.
std::optional<std::vector<std::pair<std::string, PendingCall>>>
pendingCalls(const std::string& process) {
    const std::optional<std::vector<std::string>> threads = namesIn(process + "/task");
    if (!threads) {
        return std::nullopt;
    }
    std::vector<std::pair<std::string, PendingCall>> found;
    for (const std::string& thread : *threads) {
        const auto text = confirming::readTextFile(threadFile(process, thread, "syscall"));
        if (!text && (errno == EPERM || errno == EACCES)) {
            return std::nullopt;
        }
        if (const auto pending = parsePendingCall(text.value_or(""))) {
            found.emplace_back(thread, *pending);
        }
    }
    return found;
}

/// Whether a process has asked to read the file and waits for a writer: it has no descriptor yet.
/// Whoever it is no pipe for is not asked for the path: his memory may make its reader wait for
/// ever.
Answer waitsForWriter(pid_t pid, ReadRight right, const FileId& pipe) {
    const std::string process = "/proc/" + std::to_string(pid);
    const auto calls = pendingCalls(process);
    if (!calls) {
        return Answer::notAllowed;
    }
    for (const auto& [thread, pending] : *calls) {
        if (pending.kind != PendingCall::Kind::openToRead) {
            continue;
        }
        if (right != ReadRight::asItsOwn) {
            return Answer::notAllowed;
        }
        const std::string name = textAt(process, pending.pathAddress);
        const std::string place = !name.empty() && name.front() == '/' ? "/root"
                                  : pending.descriptor == AT_FDCWD
                                      ? "/cwd/"
                                      : "/fd/" + std::to_string(pending.descriptor) + "/";
        if (!name.empty() && fileIdOf(std::string(process).append(place).append(name)) == pipe) {
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
    std::array<std::uint64_t, 6> arguments{};
    words >> number >> std::hex;
    for (std::uint64_t& argument : arguments) {
        words >> argument;
    }
    if (!words) {
        return std::nullopt;
    }
#ifdef SYS_open // the newer machines have no such call
    if (number == SYS_open) {
        number = SYS_openat;
        arguments = {static_cast<std::uint64_t>(AT_FDCWD), arguments[0], arguments[1]};
    }
#endif
    using Kind = PendingCall::Kind;
    const auto descriptor = static_cast<int>(static_cast<std::uint32_t>(arguments[0]));
    if (number == SYS_write) {
        return PendingCall{Kind::write, descriptor, 0};
    }
    if (number == SYS_openat) {
        const bool writes = (arguments[2] & O_ACCMODE) == O_WRONLY;
        return PendingCall{writes ? Kind::openToWrite : Kind::openToRead, descriptor, arguments[1]};
    }
    return std::nullopt;
}

std::optional<std::vector<PipeWait>> findPipeWaits(pid_t daemon) {
    const std::string process = "/proc/" + std::to_string(daemon);
    const auto calls = pendingCalls(process);
    if (!calls) {
        return std::nullopt;
    }
    std::vector<PipeWait> waits;
    for (const auto& [thread, pending] : *calls) {
        const bool opens = pending.kind == PendingCall::Kind::openToWrite;
        struct statx status = {};
        const std::string file = process + "/fd/" + std::to_string(pending.descriptor);
        // It writes into no other pipe.
        const bool writes =
            pending.kind == PendingCall::Kind::write &&
            statx(AT_FDCWD, file.c_str(), AT_STATX_DONT_SYNC, STATX_TYPE, &status) == 0 &&
            S_ISFIFO(status.stx_mode);
        if (!writes &&
            !(opens && textAt(process, pending.pathAddress) == GLOBAL::pathToVantrelFifo)) {
            continue;
        }
        const std::vector<std::uint64_t> switches = statusNumbers(
            readProcFile(threadFile(process, thread, "status")), "voluntary_ctxt_switches");
        waits.push_back({std::stoi(thread), opens, switches.empty() ? 0 : switches.front()});
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
            allSeen = allSeen && (answer != Answer::notAllowed || hasNoMemory(pid));
            if (answer != Answer::yes) {
                continue;
            }
            const std::string name = readProcess(pid).value_or(Process()).name;
            if (pid == 1 && name == "systemd") {
                snapshot.state = PipeSnapshot::State::held;
            } else {
                snapshot.readers.push_back(name + " (" + std::to_string(pid) + ")");
            }
        }
        if (!snapshot.readers.empty()) {
            snapshot.state = PipeSnapshot::State::read;
        }
        if (!snapshot.readers.empty() || snapshot.state == PipeSnapshot::State::held) {
            return snapshot;
        }
    }
    snapshot.state = allSeen ? PipeSnapshot::State::noReader : PipeSnapshot::State::unknown;
    return snapshot;
}

} // namespace control
