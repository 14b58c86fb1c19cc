// From the pipe into the log: copied, committed, and only then taken out.
//
// tee(2) copies what is in the pipe without consuming it. The whole lines of the copy go into the
// log in one transaction, which also says which bytes these were; then exactly these bytes are
// taken out. Whoever is killed between the two leaves bytes in the pipe that are in the log
// already: the next one to start finds them by what the log says, and takes them out first.
#pragma once

#include "relay/file_look.h"
#include "relay/pipe_copy.h"
#include "relay/record_log.h"
#include "relay/settings.h"
#include "relay/targets.h"
#include "utilities/descriptors.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace relay {

/// What has gone through since the start. Read by other threads.
struct IntakeFigures {
    std::atomic<std::int64_t> records{0};
    std::atomic<std::int64_t> repeats{0};
    std::atomic<std::int64_t> batches{0};
    std::atomic<std::int64_t> oddLines{0};     // kind `other`
    std::atomic<std::int64_t> stalls{0};       // times that the log could not be written
    std::atomic<std::int64_t> stalledSince{0}; // nanoseconds since 1970; 0: it is not stalled
};

/// The pipe's one reader. Used by one thread, but for figures, bytesWaiting and problem.
class Intake {
public:
    /// Opens the pipe at the path, and makes it if it is missing; or takes over a descriptor that
    /// is open for reading and writing (`passed` >= 0). Takes out first what is in the log already.
    /// Throws std::runtime_error if there can be no pipe.
    Intake(const PipeSettings& settings, int passed, RecordLog& intoLog, const Targets& byTargets);

    /// For tests: called between the commit and the taking out.
    std::function<void()> afterCommit;

    /// Waits for so many milliseconds at most for something to come, and brings it into the log.
    /// Returns the number of bytes that were taken out of the pipe. If the log can't be written,
    /// that is told and counted, and nothing is taken out: the next call tries again.
    std::size_t turn(int limit);

    const IntakeFigures& figures() const { return counts; }
    std::int64_t bytesWaiting() const;

    /// Why nothing is taken out now; empty if nothing is in the way.
    std::string problem() const;

private:
    void takeOutWhatIsLogged();
    std::vector<Record> recordsIn(std::string_view lines);
    void addLine(std::string_view line, std::vector<Record>& records);
    Record describe(std::string_view line);
    void takeOut(std::string_view logged);
    void count(const std::vector<Record>& logged);
    void stall(const std::string& why);
    void resume();

    RecordLog& log;
    const Targets& targets;
    Descriptor pipe;
    std::string identity; // of the pipe
    std::optional<PipeCopy> copy;
    std::string copied;     // what is at the beginning of the pipe
    FileLook files;         // of one batch
    std::int64_t batch = 0; // the last one's number
    IntakeFigures counts;
    mutable std::mutex mutex;
    std::string trouble;       // guarded by `mutex`
    std::int64_t lastTold = 0; // when, nanoseconds since 1970
};

/// Names one pipe on one boot of the machine: nothing in it outlives either.
std::string pipeIdentity(int descriptor);

/// A sum over bytes that differs for all that a pipe may hold by chance.
std::uint64_t digestOf(std::string_view bytes);

} // namespace relay
