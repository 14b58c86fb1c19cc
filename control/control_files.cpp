// The two files in which the daemon tells of itself: the PID file and the status file.
#include "control/control_files.h"

#include "control/process.h"
#include "daemon/global.h"
#include "utilities/sleep.h"
#include "utilities/text.h"

#include <cerrno>

#include <fcntl.h>

namespace control {

namespace {

PidFile notWhole(PidFile::State state, std::string problem) {
    PidFile file;
    file.state = state;
    file.problem = std::move(problem);
    return file;
}

PidFile damaged(std::string problem) {
    return notWhole(PidFile::State::damaged, std::move(problem));
}

PidFile readPidFileOnce() {
    const FileText read = readFile(pidFilePath(), pidFileLimit + 1, 0, O_NOFOLLOW);
    if (!read.text) {
        return read.error == ENOENT ? PidFile()
                                    : notWhole(PidFile::State::unreadable,
                                               pidFilePath() + " cannot be read: " + read.problem);
    }
    // Its text and its time belong together only if nothing was written in between.
    PidFile file = versionOf(pidFilePath()) == versionOf(read.status)
                       ? parsePidFile(*read.text)
                       : damaged("it is being written");
    file.written = modificationTime(read.status);
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
    if (text.size() > pidFileLimit) {
        return damaged("it is longer than " + std::to_string(pidFileLimit) + " bytes");
    }
    if (text.empty() || text.back() != '\n') {
        return damaged(text.empty() ? "it is empty" : "its last line is cut off");
    }
    std::vector<pid_t> numbers;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        // 1 is the system's first process, never the daemon or one of its copy processes.
        const pid_t pid = wholeNumber<pid_t>(text.substr(0, end)).value_or(1);
        if (pid == 1) {
            return damaged("line " + std::to_string(numbers.size() + 1) + " is no process ID");
        }
        numbers.push_back(pid);
        text.remove_prefix(end + 1);
    }
    PidFile file = notWhole(PidFile::State::whole, "");
    file.daemon = numbers[0];
    file.copyProcesses.assign(numbers.begin() + 1, numbers.end());
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
    if (!UTILITIES::stringBegin(text, key) || text.back() != '\n') {
        return std::nullopt;
    }
    return wholeNumber<int>(text.substr(key.size(), text.size() - key.size() - 1));
}

std::optional<int> readStatusFile() {
    constexpr std::size_t longest = 64;
    return parseStatusFile(readFile(statusFilePath(), longest).text.value_or(""));
}

} // namespace control
