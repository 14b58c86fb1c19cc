// Who reads the hand-off pipe, found out without touching it.
#include "control/consumer_pipe.h"

#include "control/process.h"
#include "daemon/global.h"
#include "utilities/descriptors.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace control {

namespace {

namespace fs = std::filesystem;

/// What two names of one file have in common.
struct FileIdentity {
    unsigned major = 0;
    unsigned minor = 0;
    std::uint64_t inode = 0;

    bool operator==(const FileIdentity& other) const {
        return major == other.major && minor == other.minor && inode == other.inode;
    }
};

/// Of the file that a path leads to, as far as the kernel knows it without asking a file server: a
/// dead one must not stop the search.
std::optional<FileIdentity> identify(const std::string& path) {
    struct statx status = {};
    if (statx(AT_FDCWD, path.c_str(), AT_STATX_DONT_SYNC, STATX_INO, &status) != 0) {
        return std::nullopt;
    }
    return FileIdentity{status.stx_dev_major, status.stx_dev_minor, status.stx_ino};
}

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
    std::ifstream file("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
    return file.is_open() && file.get() == std::char_traits<char>::eof();
}

/// The answer to whether a process reads a file.
enum class Answer { no, yes, notAllowed };

Answer holdsForReading(pid_t pid, const FileIdentity& pipe) {
    const std::string process = "/proc/" + std::to_string(pid);
    const std::optional<std::vector<std::string>> descriptors = namesIn(process + "/fd");
    if (!descriptors) {
        return Answer::notAllowed;
    }
    const std::string files = process + "/fd/";
    const std::string modes = process + "/fdinfo/";
    for (const std::string& descriptor : *descriptors) {
        const std::optional<FileIdentity> file = identify(files + descriptor);
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
Answer waitsForWriter(pid_t pid, const FileIdentity& pipe) {
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
        const std::optional<FileIdentity> found = identify(path + name);
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

PipeSnapshot lookAtConsumerPipe() {
    return lookAtConsumerPipe(GLOBAL::pathToVantrelFifo);
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
    const std::optional<FileIdentity> pipe = identify(path);
    if (!pipe) {
        snapshot.state = PipeSnapshot::State::unknown;
        return snapshot;
    }

    const std::vector<pid_t> processes = allProcesses();
    // The first process is always there; unless it is hidden, and others are too.
    bool allSeen = !processes.empty() && processes.front() == 1;
    for (const auto& isReader : {holdsForReading, waitsForWriter}) {
        for (const pid_t pid : processes) {
            const Answer answer = isReader(pid, *pipe);
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
            // The second, dearer question is for a pipe that nobody seems to read.
            snapshot.state = PipeSnapshot::State::read;
            return snapshot;
        }
    }
    snapshot.state = allSeen ? PipeSnapshot::State::noReader : PipeSnapshot::State::unknown;
    return snapshot;
}

} // namespace control
