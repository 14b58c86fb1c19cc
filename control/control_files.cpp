// The two files in which the daemon tells of itself: the PID file and the status file.
#include "control/control_files.h"

#include "control/file.h"
#include "daemon/global.h"
#include "utilities/sleep.h"

#include <cerrno>
#include <charconv>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>

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

PidFile readPidFileOnce() {
    const FileText read = readFile(pidFilePath(), pidFileLimit + 1, 0, O_NOFOLLOW);
    if (!read.text) {
        return read.error == ENOENT ? PidFile() : unreadable(read.problem);
    }
    PidFile file = parsePidFile(*read.text);
    // Its text and its time belong together only if nothing was written in between.
    struct stat after = {};
    const timespec& before = read.status.st_mtim;
    if (lstat(pidFilePath().c_str(), &after) != 0 || after.st_size != read.status.st_size ||
        after.st_mtim.tv_sec != before.tv_sec || after.st_mtim.tv_nsec != before.tv_nsec) {
        file = damaged("it is being written");
    }
    file.written = static_cast<double>(before.tv_sec) + static_cast<double>(before.tv_nsec) / 1e9;
    file.owner = read.status.st_uid;
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
    constexpr std::size_t longest = 64;
    return parseStatusFile(readFile(statusFilePath(), longest).text.value_or(""));
}

} // namespace control
