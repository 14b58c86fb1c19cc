// From the pipe into the log: copied, committed, and only then taken out.
//
// tee(2) copies what is in the pipe without consuming it. The whole lines of the copy go into the
// log in one transaction, which also says which bytes these were; then exactly these bytes are
// taken out. Whoever is killed between the two leaves bytes in the pipe that are in the log
// already: the next one to start finds them by what the log says, and takes them out first.
//
// The look at each file takes as long as the log. So while one part of a full pipe is written into
// the log, the files of the part behind it are looked at by another thread.
#pragma once

#include "relay/pipe_copy.h"
#include "relay/record_log.h"
#include "relay/settings.h"
#include "relay/targets.h"
#include "utilities/descriptors.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace relay {

/// What has gone through since the start, and what is in the way.
struct IntakeFigures {
    std::int64_t records = 0;
    std::int64_t bytes = 0; // of the files of these records
    std::int64_t repeats = 0;
    std::int64_t batches = 0;
    std::int64_t oddLines = 0;     // kind `other`
    std::int64_t stalls = 0;       // times that the log could not be written
    std::int64_t stalledSince = 0; // nanoseconds since 1970; 0: it is not stalled
    std::string problem;           // why it is
    std::int64_t bytesWaiting = 0; // in the pipe
};

/// The pipe's one reader. Used by one thread, but for figures.
class Intake {
public:
    /// Opens the pipe at the path, and makes it if it is missing; or takes over a descriptor that
    /// is open for reading and writing (`passed` >= 0). Takes out first what is in the log already.
    /// Throws std::runtime_error if there can be no pipe.
    Intake(const PipeSettings& settings, int passed, RecordLog& intoLog, const Targets& byTargets);

    /// For tests: called between the commit and the taking out.
    std::function<void()> afterCommit;

    /// Waits for so many milliseconds at most for something to come, and brings it into the log:
    /// one transaction. Returns the number of bytes that were taken out of the pipe. If the log
    /// can't be written, that is told and counted, and nothing is taken out: the next call tries
    /// again.
    std::size_t turn(int limit);

    IntakeFigures figures() const;

private:
    /// Lines from the beginning of the pipe, and what they tell.
    struct Part {
        std::string lines;
        std::uint64_t digest = 0; // of the lines
        std::vector<Record> records;
    };

    void takeOutWhatIsLogged();
    std::string firstLines(int limit);
    std::future<Part> lookAhead(const std::string& lines);
    Part described(std::string lines) const;
    bool takeOut(const std::string& logged);
    void count(const std::vector<Record>& logged);
    void stall(const std::string& why);
    void resume();

    RecordLog& log;
    const Targets& targets;
    Descriptor pipe;
    std::string identity; // of the pipe
    std::optional<PipeCopy> copy;
    Part next;                                        // what was looked at already; mostly nothing
    std::int64_t batch = 0;                           // the last one's number
    std::chrono::steady_clock::time_point nextCommit; // not before
    mutable std::mutex mutex;
    IntakeFigures counts;      // guarded by `mutex`
    std::int64_t lastTold = 0; // when, nanoseconds since 1970
};

/// Names one pipe on one boot of the machine: nothing in it outlives either.
std::string pipeIdentity(int descriptor);

/// A sum over bytes that differs for all that a pipe may hold by chance.
std::uint64_t digestOf(std::string_view bytes);

} // namespace relay
