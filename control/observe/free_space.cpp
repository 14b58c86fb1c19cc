// Asks how much room is left at the targets, without ever waiting for a file server that is gone.
#include "control/observe/free_space.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

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
    return Space{status.f_bavail * block, status.f_blocks * block};
}

/// What the asking and the answering thread have in common. It outlives both.
struct FreeSpace::Shared {
    std::mutex mutex;
    std::condition_variable changed;
    bool isRunning = false; // the answering thread
    bool isBusy = false;    // a question is not answered yet
    bool isEnding = false;
    std::vector<std::string> paths;
    std::map<std::string, Space> found;
};

FreeSpace::FreeSpace() : shared(std::make_shared<Shared>()) {
}

FreeSpace::~FreeSpace() {
    std::unique_lock<std::mutex> lock(shared->mutex);
    shared->isEnding = true;
    shared->changed.notify_all();
    // One that waits for a file server is left to itself.
    shared->changed.wait_for(lock, patience, [this] { return !shared->isRunning; });
}

std::map<std::string, Space> FreeSpace::ask(const std::vector<std::string>& paths) {
    std::unique_lock<std::mutex> lock(shared->mutex);
    if (!shared->isRunning) {
        try {
            std::thread(answer, shared).detach();
        } catch (const std::system_error&) {
            return {};
        }
        shared->isRunning = true;
    }
    if (!shared->isBusy) {
        shared->paths = paths;
        shared->found.clear();
        shared->isBusy = true;
        shared->changed.notify_all();
        shared->changed.wait_for(lock, patience, [this] { return !shared->isBusy; });
    }
    return shared->found;
}

void FreeSpace::answer(const std::shared_ptr<Shared>& shared) {
    std::unique_lock<std::mutex> lock(shared->mutex);
    for (;;) {
        shared->changed.wait(lock, [&shared] { return shared->isBusy || shared->isEnding; });
        if (shared->isEnding) {
            break;
        }
        const std::vector<std::string> paths = shared->paths;
        for (const std::string& path : paths) {
            lock.unlock();
            const std::optional<Space> space = spaceAt(path);
            lock.lock();
            if (space) {
                shared->found[path] = *space;
            }
        }
        shared->isBusy = false;
        shared->changed.notify_all();
    }
    shared->isRunning = false;
    shared->changed.notify_all();
}

} // namespace control
