// Noticing that a child does nothing any more.
#include "confirming_rsync/standstill.h"

#include "shares/files.h"
#include "shares/process_identity.h"

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <system_error>

namespace confirming {

namespace {

/// Looks for each limit. One look reads something of each process of the machine.
constexpr int looks = 10;

/// The bytes that the processes of a group have read and written since their starts, files, pipes
/// and connections alike. Nothing if the system does not tell. Ended processes count as none.
std::optional<std::uint64_t> bytesMovedBy(pid_t group) {
    std::uint64_t moved = 0;
    std::error_code failure;
    std::filesystem::directory_iterator process("/proc", failure);
    for (; !failure && process != end(process); process.increment(failure)) {
        const std::string directory = process->path();
        const auto status = parseProcessStatus(readTextFile(directory + "/stat").value_or(""));
        if (!status || status->group != group || !status->isRunning()) {
            continue;
        }
        // "rchar: READ" and "wchar: WRITTEN" are its first lines.
        std::istringstream counters(readTextFile(directory + "/io").value_or(""));
        std::string key;
        std::uint64_t read = 0;
        std::uint64_t written = 0;
        if (!(counters >> key >> read >> key >> written)) {
            return std::nullopt;
        }
        moved += read + written;
    }
    return failure ? std::nullopt : std::optional(moved);
}

} // namespace

bool Standstill::hasLasted(std::chrono::milliseconds time, Clock::time_point lastLife) {
    const auto now = Clock::now();
    lastLife_ = std::max(lastLife_, lastLife);
    if (now - lastLife_ < time / looks || now - lastLook_ < time / looks) {
        return false;
    }
    lastLook_ = now;
    const auto moved = bytesMovedBy(group_);
    if (!moved || moved != moved_) {
        moved_ = moved;
        lastLife_ = now;
    }
    return now - lastLife_ >= time;
}

} // namespace confirming
