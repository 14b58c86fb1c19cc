// What the kernel tells of one process in /proc.
#include "control/process.h"

#include "shares/files.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <system_error>

#include <unistd.h>

namespace control {

namespace {

namespace fs = std::filesystem;

std::string folderOf(pid_t pid) {
    return "/proc/" + std::to_string(pid);
}

/// The entries of a folder of /proc whose names are numbers, ascending.
std::vector<pid_t> numbersIn(const std::string& folder) {
    std::vector<pid_t> numbers;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (const auto number = wholeNumber<pid_t>(name)) {
            numbers.push_back(*number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

} // namespace

std::string readProcFile(const std::string& path) {
    return confirming::readTextFile(path).value_or("");
}

std::optional<Process> parseProcess(std::string_view text) {
    // PID (NAME) STATE PARENT GROUP SESSION, and the start as the 22nd.
    const std::size_t open = text.find(" (");
    const std::size_t close = text.rfind(") ");
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return std::nullopt;
    }
    Process process;
    process.pid = wholeNumber<pid_t>(text.substr(0, open)).value_or(0);
    process.name = text.substr(open + 2, close - open - 2);
    std::istringstream fields{std::string(text.substr(close + 2))};
    fields >> process.state >> process.parent >> process.group >> process.session;
    std::string skipped;
    for (int field = 7; field < 22; ++field) {
        fields >> skipped;
    }
    fields >> process.startTicks;
    const bool isWhole = fields && process.pid > 0;
    return isWhole ? std::optional(process) : std::nullopt;
}

std::optional<Process> readProcess(pid_t pid) {
    return parseProcess(readProcFile(folderOf(pid) + "/stat"));
}

bool isRunning(const Process& process) {
    return process.state != 'Z' && process.state != 'X';
}

double secondsOf(clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double sinceBoot(const Process& process) {
    return static_cast<double>(process.startTicks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double startTime(const Process& process) {
    return secondsOf(CLOCK_REALTIME) - secondsOf(CLOCK_BOOTTIME) + sinceBoot(process);
}

std::vector<std::string> commandLine(pid_t pid) {
    std::istringstream text(readProcFile(folderOf(pid) + "/cmdline"));
    std::vector<std::string> words;
    std::string word;
    while (std::getline(text, word, '\0')) {
        words.push_back(word);
    }
    return words;
}

std::string executable(pid_t pid) {
    std::error_code error;
    const fs::path path = fs::read_symlink(folderOf(pid) + "/exe", error);
    return error ? std::string() : path.string();
}

std::vector<std::uint64_t> statusNumbers(std::string_view status, std::string_view key, int base) {
    const std::string lines = "\n" + std::string(status);
    const std::string mark = "\n" + std::string(key) + ":";
    const std::size_t found = lines.find(mark);
    if (found == std::string::npos) {
        return {};
    }
    const std::size_t begin = found + mark.size();
    std::istringstream words(lines.substr(begin, lines.find('\n', begin) - begin));
    words >> std::setbase(base);
    return {std::istream_iterator<std::uint64_t>(words), {}};
}

std::vector<std::uint64_t> statusNumbers(pid_t pid, std::string_view key, int base) {
    return statusNumbers(readProcFile(folderOf(pid) + "/status"), key, base);
}

std::optional<uid_t> userOf(pid_t pid) {
    // The owner of its folder would be root for a process that may not be dumped.
    const std::vector<std::uint64_t> users = statusNumbers(pid, "Uid");
    return users.size() < 2 ? std::nullopt : std::optional<uid_t>(static_cast<uid_t>(users[1]));
}

bool sharesPidNamespace(pid_t pid) {
    // In a namespace below this one it has a number there, too.
    return statusNumbers(pid, "NSpid").size() <= 1;
}

std::vector<pid_t> threadsOf(pid_t pid) {
    return numbersIn(folderOf(pid) + "/task");
}

std::string threadStates(pid_t pid) {
    const std::string threads = folderOf(pid) + "/task/";
    std::string states;
    for (const pid_t thread : threadsOf(pid)) {
        const auto state = parseProcess(readProcFile(threads + std::to_string(thread) + "/stat"));
        states += state ? std::string(1, state->state) : "";
    }
    return states;
}

std::vector<pid_t> allProcesses() {
    return numbersIn("/proc");
}

std::vector<pid_t> childrenOf(pid_t pid) {
    std::vector<pid_t> children;
    const std::string threads = folderOf(pid) + "/task";
    for (const pid_t thread : threadsOf(pid)) {
        std::istringstream text(readProcFile(threads + "/" + std::to_string(thread) + "/children"));
        children.insert(children.end(), std::istream_iterator<pid_t>(text), {});
    }
    // Not every kernel keeps those lists.
    if (children.empty() && access("/proc/thread-self/children", F_OK) != 0) {
        for (const pid_t each : allProcesses()) {
            const std::optional<Process> process = readProcess(each);
            if (process && process->parent == pid) {
                children.push_back(each);
            }
        }
    }
    std::sort(children.begin(), children.end());
    return children;
}

} // namespace control
