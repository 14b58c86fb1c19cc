// Asks how much room is left at the targets, without ever waiting for a file server that is gone.
#pragma once

#include "control/aside.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace control {

/// Of one file system. `free` is what root may still fill, in bytes.
struct Space {
    std::uint64_t free = 0;
    std::uint64_t total = 0;
    std::uint64_t freeInodes = 0;
    std::uint64_t totalInodes = 0; // 0: it makes them as they are needed
};

/// The file system on which `path` is, or would be: that of its nearest existing folder. Nothing if
/// it can't be asked. May wait for as long as a file server does not answer.
std::optional<Space> spaceAt(std::string path);

/// Asks each path aside. For one thread at a time.
class FreeSpace {
public:
    /// Nothing if it can't be asked, and nothing at all if it gave no answer within a fifth of a
    /// second.
    std::optional<std::optional<Space>> ask(const std::string& path);

private:
    std::map<std::string, Aside<std::optional<Space>>> asked;
};

} // namespace control
