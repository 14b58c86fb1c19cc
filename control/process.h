// What the kernel tells of one process in /proc.
#pragma once

#include "control/file.h"

#include <charconv>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <sys/types.h>

namespace control {

/// A process as it was when it was looked at. `pid` and `startTicks` together name one process for
/// as long as the machine runs; the pid alone is given to others when it has ended.
struct Process {
    pid_t pid = 0;
    pid_t parent = 0;
    pid_t group = 0;
    pid_t session = 0;
    char state = '?';             // Z and X have ended
    std::uint64_t startTicks = 0; // since the boot, in the kernel's ticks (see startTime)
    std::string name;             // of the program, at most 15 bytes
};

/// The decimal number above 0 that is the whole of a text, without a sign or a leading zero.
template<typename Number>
std::optional<Number> wholeNumber(std::string_view text) {
    Number number = 0;
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    const bool isWhole = read.ec == std::errc() && read.ptr == end && number > 0;
    return isWhole && text.front() != '0' ? std::optional(number) : std::nullopt;
}

/// Reads the text of /proc/PID/stat. Nothing if it is not in the kernel's form. The program's name,
/// which may hold any byte, does not mislead it.
std::optional<Process> parseProcess(std::string_view text);

/// The text of a file in /proc; empty when it can't be read.
std::string readProcFile(const std::string& path);

/// The process that has this number now; nothing if there is none. One that has ended and was not
/// waited for yet is found, with state 'Z'.
std::optional<Process> readProcess(pid_t pid);

/// True unless it has ended.
bool isRunning(const Process& process);

/// What a clock shows, in seconds.
double secondsOf(clockid_t clock);

/// When it was started, in seconds since the boot.
double sinceBoot(const Process& process);

/// The same in seconds since 1970 by the system's present clock: one that was set since shifts it.
double startTime(const Process& process);

/// The numbers behind a key, such as "Uid", of the text of a /proc/PID/status file; empty if there
/// is no such key.
std::vector<std::uint64_t> statusNumbers(std::string_view status, std::string_view key,
                                         int base = 10);

/// The same of a process. Nobody's memory is read for it.
std::vector<std::uint64_t> statusNumbers(pid_t pid, std::string_view key, int base = 10);

/// The words of its command line; empty for a kernel thread, one that has ended, or one that may
/// not be looked at.
std::vector<std::string> commandLine(pid_t pid);

/// The path of its executable as the kernel shows it: " (deleted)" follows when the file was
/// replaced or removed since. Empty when it may not be looked at.
std::string executable(pid_t pid);

/// The user that the process runs as; nothing if there is none of this number.
std::optional<uid_t> userOf(pid_t pid);

/// False if the process is known to live in another pid namespace than this one: a container's.
bool sharesPidNamespace(pid_t pid);

/// Where each of its threads stands, as in Process::state, one letter for each; empty if there is
/// no such process.
std::string threadStates(pid_t pid);

/// The numbers of the threads of a process, ascending.
std::vector<pid_t> threadsOf(pid_t pid);

/// The numbers of all processes, ascending.
std::vector<pid_t> allProcesses();

/// The numbers of the children of this process, of all its threads, ascending. One that is there
/// may be missing when another ends at the same moment.
std::vector<pid_t> childrenOf(pid_t pid);

} // namespace control
