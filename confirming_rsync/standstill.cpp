// Noticing that a child does nothing any more.
#include "confirming_rsync/standstill.h"

#include "confirming_rsync/descriptors.h"
#include "confirming_rsync/process_identity.h"

#include <charconv>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include <dirent.h>

namespace confirming {

namespace {

/// Looks for each limit. One look reads something of each process of the machine.
constexpr int looks = 10;

/// The number behind "KEY: " at the beginning of a line.
std::optional<std::uint64_t> valueOf(std::string_view text, std::string_view key) {
    const std::size_t begin = text.find(key);
    if (begin == std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(begin + key.size());
    std::uint64_t value = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), value).ec != std::errc()) {
        return std::nullopt;
    }
    return value;
}

} // namespace

std::optional<std::uint64_t> bytesMovedBy(pid_t group) {
    const auto close = [](DIR* directory) { ::closedir(directory); };
    const std::unique_ptr<DIR, decltype(close)> processes(::opendir("/proc"), close);
    if (!processes) {
        return std::nullopt;
    }
    std::uint64_t moved = 0;
    while (const struct dirent* entry = ::readdir(processes.get())) {
        const std::string directory = std::string("/proc/") + entry->d_name;
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9') {
            continue;
        }
        const auto status = parseProcessStatus(readTextFile(directory + "/stat").value_or(""));
        if (!status || status->group != group || !isRunning(*status)) {
            continue;
        }
        const std::string counters = readTextFile(directory + "/io").value_or("");
        const auto read = valueOf(counters, "rchar: ");
        const auto written = valueOf(counters, "wchar: ");
        if (!read || !written) {
            return std::nullopt;
        }
        moved += *read + *written;
    }
    return moved;
}

bool Standstill::hasLasted(std::chrono::milliseconds time) {
    const auto now = Clock::now();
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
