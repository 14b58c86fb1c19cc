// What the kernel tells of one process in /proc.
#include "control/process.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
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

/// The number that is the whole of a text; 0 if it is none.
pid_t asPid(const std::string& text) {
    pid_t pid = 0;
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, pid);
    return read.ec == std::errc() && read.ptr == end && pid > 0 ? pid : 0;
}

/// The entries of a folder of /proc whose names are numbers, ascending.
std::vector<pid_t> numbersIn(const std::string& folder) {
    std::vector<pid_t> numbers;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        const pid_t number = asPid(entry->path().filename().string());
        if (number != 0) {
            numbers.push_back(number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

} // namespace

std::string readProcFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text;
    std::array<char, 4096> block{};
    // Not by the iterators of the buffer: they throw when the process ends in the middle of it.
    while (file.read(block.data(), block.size()) || file.gcount() > 0) {
        text.append(block.data(), static_cast<std::size_t>(file.gcount()));
    }
    return text;
}

std::optional<Process> parseProcess(std::string_view text) {
    // PID (NAME) STATE and then numbers; the name may hold parentheses and blanks of its own.
    const std::size_t open = text.find(" (");
    const std::size_t close = text.rfind(") ");
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return std::nullopt;
    }
    Process process;
    process.pid = asPid(std::string(text.substr(0, open)));
    process.name = text.substr(open + 2, close - open - 2);

    std::istringstream fields{std::string(text.substr(close + 2))};
    fields >> process.state >> process.parent >> process.group >> process.session;
    std::string skipped;
    for (int field = 7; field < 22; ++field) {
        fields >> skipped;
    }
    fields >> process.startTicks;
    if (!fields || process.pid == 0) {
        return std::nullopt;
    }
    return process;
}

std::optional<Process> readProcess(pid_t pid) {
    return parseProcess(readProcFile(folderOf(pid) + "/stat"));
}

bool isRunning(const Process& process) {
    return process.state != 'Z' && process.state != 'X';
}

double startTime(const Process& process) {
    timespec now = {};
    timespec sinceBoot = {};
    const long ticksPerSecond = sysconf(_SC_CLK_TCK);
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 ||
        clock_gettime(CLOCK_BOOTTIME, &sinceBoot) != 0 || ticksPerSecond <= 0) {
        return -1;
    }
    const auto seconds = [](const timespec& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    return seconds(now) - seconds(sinceBoot) +
           static_cast<double>(process.startTicks) / static_cast<double>(ticksPerSecond);
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
    std::vector<std::uint64_t> numbers;
    std::istringstream lines{std::string(status)};
    std::string line;
    while (std::getline(lines, line)) {
        if (line.size() <= key.size() || line[key.size()] != ':' ||
            line.compare(0, key.size(), key) != 0) {
            continue;
        }
        std::istringstream words(line.substr(key.size() + 1));
        std::string word;
        while (words >> word) {
            char* end = nullptr;
            const std::uint64_t number = std::strtoull(word.c_str(), &end, base);
            if (*end == '\0') {
                numbers.push_back(number);
            }
        }
    }
    return numbers;
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
    const std::string threads = folderOf(pid) + "/task";
    std::string states;
    for (const pid_t thread : threadsOf(pid)) {
        const std::optional<Process> state =
            parseProcess(readProcFile(threads + "/" + std::to_string(thread) + "/stat"));
        if (state) {
            states += state->state;
        }
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
