// Asks how much room is left at the targets, without ever waiting for a file server that is gone.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace control {

/// Of one file system, in bytes. `free` is what any user may still fill.
struct Space {
    std::uint64_t free = 0;
    std::uint64_t total = 0;
};

/// The file system on which `path` is, or would be: that of its nearest existing folder. Nothing if
/// it can't be asked. May wait for as long as a file server does not answer.
std::optional<Space> spaceAt(std::string path);

/// Asks on a thread of its own. For one thread at a time.
class FreeSpace {
public:
    FreeSpace();
    ~FreeSpace();
    FreeSpace(const FreeSpace&) = delete;
    FreeSpace& operator=(const FreeSpace&) = delete;

    /// The space at each of these paths, without those that can't be asked, or that gave no answer
    /// within a fifth of a second. Those behind one that does not answer are missing, too.
    std::map<std::string, Space> ask(const std::vector<std::string>& paths);

private:
    struct Shared;
    static void answer(const std::shared_ptr<Shared>& shared);
    std::shared_ptr<Shared> shared;
};

} // namespace control
