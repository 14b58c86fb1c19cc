// Who reads the hand-off pipe, found out without touching it.
#include "control/consumer_pipe.h"

#include "control/file.h"
#include "control/process.h"
#include "daemon/global.h"
#include "utilities/descriptors.h"

#include <array>
#include <atomic>
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

/// Which processes may open a pipe for reading.
enum class Right {
    none,
    asAnybody, // since everybody may
    asItsOwn,  // as root, its owner or one of its group
};

Right rightOf(pid_t pid, const struct stat& pipe) {
    const std::vector<std::uint64_t> users = statusNumbers(pid, "Uid");
    if (users.empty()) {
        return Right::asItsOwn; // it can't be told
    }
    for (const std::uint64_t user : users) {
        if (user == 0 || user == pipe.st_uid) {
            return Right::asItsOwn;
        }
    }
    if ((pipe.st_mode & S_IRGRP) != 0) {
        for (const char* const key : {"Gid", "Groups"}) {
            for (const std::uint64_t group : statusNumbers(pid, key)) {
                if (group == pipe.st_gid) {
                    return Right::asItsOwn;
                }
            }
        }
    }
    return (pipe.st_mode & S_IROTH) != 0 ? Right::asAnybody : Right::none;
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

/// Whether a process has asked to read the file and waits for a writer: it has no descriptor yet.
/// Whoever it is no pipe for is not asked for the path: his memory may make its reader wait for
/// ever.
Answer waitsForWriter(pid_t pid, Right right, const FileId& pipe) {
    const std::string process = "/proc/" + std::to_string(pid);
    const std::optional<std::vector<std::string>> threads = namesIn(process + "/task");
    if (!threads) {
        return Answer::notAllowed;
    }
    for (const std::string& thread : *threads) {
        std::string call = process;
        call.append("/task/").append(thread).append("/syscall");
        const Descriptor file(open(call.c_str(), O_RDONLY | O_CLOEXEC));
        std::array<char, 256> text = {};
        const ssize_t got = read(file.get(), text.data(), text.size());
        if (got < 0) {
            if (errno == EPERM || errno == EACCES) {
                return Answer::notAllowed;
            }
            continue; // it has ended, or the kernel does not tell
        }
        const std::optional<PendingOpen> pending =
            parsePendingOpen({text.data(), static_cast<std::size_t>(got)});
        if (!pending) {
            continue;
        }
        if (right != Right::asItsOwn) {
            return Answer::notAllowed;
        }
        const std::string name = textAt(pid, pending->pathAddress);
        const bool isWhole = !name.empty() && name.front() == '/';
        std::string path = process;
        if (isWhole) {
            path += "/root";
        } else if (pending->folder == AT_FDCWD) {
            path += "/cwd/";
        } else {
            path.append("/fd/").append(std::to_string(pending->folder)).append("/");
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
    constexpr std::string_view key = "flags:";
    std::istringstream lines{std::string(fdinfo)};
    std::string line;
    while (std::getline(lines, line)) {
        if (line.compare(0, key.size(), key) != 0) {
            continue;
        }
        const std::string digits = line.substr(key.size());
        char* end = nullptr;
        const unsigned long flags = std::strtoul(digits.c_str(), &end, 8);
        const unsigned long access = flags & O_ACCMODE;
        // One that was opened as a mere place shows the same access as one for reading.
        return end != digits.c_str() && (flags & O_PATH) == 0 &&
               (access == O_RDONLY || access == O_RDWR);
    }
    return false;
}

std::optional<PendingOpen> parsePendingOpen(std::string_view text) {
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
    PendingOpen pending;
    std::uint64_t flags = 0;
    if (number == SYS_openat) {
        pending.folder = static_cast<int>(static_cast<std::uint32_t>(value(0)));
        pending.pathAddress = value(1);
        flags = value(2);
#ifdef SYS_open // the newer machines have no such call
    } else if (number == SYS_open) {
        pending.folder = AT_FDCWD;
        pending.pathAddress = value(0);
        flags = value(1);
#endif
    } else {
        return std::nullopt;
    }
    if ((flags & O_ACCMODE) == O_WRONLY) {
        return std::nullopt;
    }
    return pending;
}

namespace {

PipeSnapshot look(const std::string& path) {
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
    std::vector<std::pair<pid_t, Right>> candidates;
    for (const pid_t pid : processes) {
        const Right right = rightOf(pid, status);
        if (right != Right::none) {
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

} // namespace

PipeSnapshot lookAtConsumerPipe() {
    return lookAtConsumerPipe(GLOBAL::pathToVantrelFifo);
}

PipeSnapshot lookAtConsumerPipe(const std::string& path) {
    constexpr std::chrono::seconds limit{2};
    static std::atomic<bool> isUnderWay{false}; // one that hangs is not joined by others
    PipeSnapshot unknown;
    unknown.path = path;
    if (isUnderWay.exchange(true)) {
        return unknown;
    }
    std::future<PipeSnapshot> snapshot = inBackground([path] {
        PipeSnapshot found = look(path);
        isUnderWay = false;
        return found;
    });
    return resultBy(std::chrono::steady_clock::now() + limit, snapshot).value_or(unknown);
}

} // namespace control
