// Digests of the files of runs, for their manifests: taken by threads of their own, at a bounded
// rate, and with what the others leave of processor and disk.
#pragma once

#include "relay/runs.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace relay {

/// Takes the digests that runs want, from its making to its end.
class Digests {
public:
    /// `nameIn` tells where in a path the names begin that a detector chose: no link is followed
    /// there. `runs` outlives it.
    Digests(Runs& ofRuns, std::function<std::size_t(std::string_view path)> nameIn);
    ~Digests();
    Digests(const Digests&) = delete;
    Digests& operator=(const Digests&) = delete;

private:
    void work();
    std::vector<RunFile> claim();
    void take(RunFile& file);
    void read(RunFile& file, int descriptor);
    void store(std::vector<RunFile>& digested);
    bool rest(std::chrono::steady_clock::time_point until);

    Runs& runs;
    const std::function<std::size_t(std::string_view)> nameBeginning;
    std::atomic<bool> isEnding{false};
    std::mutex mutex;                                // guards the next two
    std::int64_t claimed = 0;                        // some thread has what is up to this record
    std::chrono::steady_clock::time_point free = {}; // when the rate allows to read on
    std::condition_variable ending;
    std::vector<std::thread> threads;
};

} // namespace relay
