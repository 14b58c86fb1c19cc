// Asks how much room is left at the targets, without ever waiting for a file server that is gone.
#include "control/observe/free_space.h"

#include <cerrno>
#include <chrono>

#include <sys/statvfs.h>

namespace control {

namespace {

constexpr std::chrono::milliseconds patience(200);

} // namespace

std::optional<Space> spaceAt(std::string path) {
    struct statvfs status = {};
    while (statvfs(path.c_str(), &status) != 0) {
        const std::size_t slash = path.rfind('/');
        if ((errno != ENOENT && errno != ENOTDIR) || slash == std::string::npos || path == "/") {
            return std::nullopt;
        }
        path.resize(slash == 0 ? 1 : slash);
    }
    const std::uint64_t block = status.f_frsize;
    return Space{status.f_bfree * block, status.f_blocks * block, status.f_ffree, status.f_files};
}

std::optional<std::optional<Space>> FreeSpace::ask(const std::string& path) {
    return asked[path].ask([path] { return spaceAt(path); }, patience);
}

} // namespace control
