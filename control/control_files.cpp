// The two files in which the daemon tells of itself: the PID file and the status file.
#include "control/control_files.h"

#include "daemon/global.h"
#include "utilities/descriptors.h"
#include "utilities/sleep.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace control {

namespace {

/// Reads a decimal number that is the whole of `word`, without a sign or a leading zero.
template<typename Number>
std::optional<Number> wholeNumber(std::string_view word) {
    Number number = 0;
    const char* const end = word.data() + word.size();
    const auto read = std::from_chars(word.data(), end, number);
    if (read.ec != std::errc() || read.ptr != end || word.front() == '-' || word.front() == '0') {
        return std::nullopt;
    }
    return number;
}

PidFile damaged(std::string problem) {
    PidFile file;
    file.state = PidFile::State::damaged;
    file.problem = std::move(problem);
    return file;
}

PidFile unreadable(const std::string& reason) {
    PidFile file;
    file.state = PidFile::State::unreadable;
    file.problem = pidFilePath() + " cannot be read: " + reason;
    return file;
}

/// The beginning of a file, one byte more than `limit` at most; nothing when reading fails.
std::optional<std::string> readBeginning(int descriptor, std::size_t limit) {
    std::string text(limit + 1, '\0');
    std::size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t count = read(descriptor, text.data() + filled, text.size() - filled);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return std::nullopt;
        }
        if (count == 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    text.resize(filled);
    return text;
}

double seconds(const timespec& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

PidFile readPidFileOnce() {
    // A named pipe or a device must not make the reader wait.
    const Descriptor descriptor(
        open(pidFilePath().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
    if (descriptor.get() < 0) {
        if (errno == ENOENT) {
            return {};
        }
        return unreadable(errno == ELOOP ? "it is a symbolic link" : std::strerror(errno));
    }
    struct stat before = {};
    struct stat after = {};
    if (fstat(descriptor.get(), &before) != 0) {
        return unreadable(std::strerror(errno));
    }
    if (!S_ISREG(before.st_mode)) {
        return unreadable("it is not a regular file");
    }
    const std::optional<std::string> text = readBeginning(descriptor.get(), pidFileLimit);
    if (!text || fstat(descriptor.get(), &after) != 0) {
        return unreadable(std::strerror(errno));
    }
    PidFile file = parsePidFile(*text);
    // Its text and its time belong together only if nothing was written in between.
    if (seconds(before.st_mtim) != seconds(after.st_mtim) || before.st_size != after.st_size) {
        file = damaged("it is being written");
    }
    file.written = seconds(after.st_mtim);
    file.owner = after.st_uid;
    return file;
}

} // namespace

std::string pidFilePath() {
    return "/var/run/" + GLOBAL::progName + "_orbelin.pid";
}

std::string statusFilePath() {
    return "/var/run/" + GLOBAL::progName + "_orbelin.stat";
}

PidFile parsePidFile(std::string_view text) {
    if (text.empty()) {
        return damaged("it is empty");
    }
    if (text.size() > pidFileLimit) {
        return damaged("it is longer than " + std::to_string(pidFileLimit) + " bytes");
    }
    if (text.back() != '\n') {
        return damaged("its last line is cut off");
    }
    PidFile file;
    file.state = PidFile::State::whole;
    for (int line = 1; !text.empty(); ++line) {
        const std::size_t end = text.find('\n');
        const std::optional<pid_t> pid =
            end == 0 ? std::nullopt : wholeNumber<pid_t>(text.substr(0, end));
        // 1 is the system's first process, never the daemon or one of its copy processes.
        if (!pid || *pid < 2) {
            return damaged("line " + std::to_string(line) + " is no process ID");
        }
        if (line == 1) {
            file.daemon = *pid;
        } else {
            file.copyProcesses.push_back(*pid);
        }
        text.remove_prefix(end + 1);
    }
    return file;
}

PidFile readPidFile() {
    PidFile file = readPidFileOnce();
    for (int attempt = 0; attempt < 25 && file.state == PidFile::State::damaged; ++attempt) {
        UTILITIES::sleepMilliSeconds(10);
        file = readPidFileOnce();
    }
    return file;
}

std::optional<int> parseStatusFile(std::string_view text) {
    constexpr std::string_view key = "njobs ";
    if (text.size() < key.size() + 2 || text.substr(0, key.size()) != key || text.back() != '\n') {
        return std::nullopt;
    }
    text.remove_prefix(key.size());
    text.remove_suffix(1);
    return wholeNumber<int>(text);
}

std::optional<int> readStatusFile() {
    const Descriptor descriptor(
        open(statusFilePath().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (descriptor.get() < 0) {
        return std::nullopt;
    }
    constexpr std::size_t longest = 64;
    return parseStatusFile(readBeginning(descriptor.get(), longest).value_or(""));
}

} // namespace control
