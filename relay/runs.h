// Runs: which files belong together, when a run has ended, and whether it has all its files.
//
// A run begins with its first file and is `open`. When its end is announced (by the operator, a
// sentinel file, or the next run), it is `ending` until no file has come for a while, since files
// overtake each other on their way; then it has `ended`, and a record of kind `run` says so in the
// log, behind its last file's. A file that comes later reopens it, which is a record, too.
//
// All of it stands in tables of the log's database; what a record changes there is one transaction
// with that record's number. So each file is counted once, whatever dies, and when.
#pragma once

#include "relay/record_log.h"
#include "relay/run.h"
#include "relay/settings.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace relay {

/// All runs. All calls may be made by any thread, and throw DatabaseError when they fail; then
/// nothing was changed.
class Runs {
public:
    /// Begins behind the log's newest record, unless the log says how far it has come.
    Runs(const RunSettings& itsSettings, RecordLog& inLog);

    const RunSettings settings;

    /// Counts what is new in the log, and then ends the runs whose time has come at that time.
    void follow(std::int64_t time);

    /// All records up to this one are counted.
    std::int64_t position() const { return counted; }

    /// Ends the run with all of its files that are in the log; again, if another number is expected
    /// now. Nothing if there is none of the name and no number of files is expected of it.
    std::optional<Run> end(const std::string& name, std::optional<std::int64_t> expected);

    std::optional<Run> find(const std::string& name);

    /// Waits, for so long at most, until the run has ended or has all of that many files, or the
    /// log is interrupted. Returns it as it is then, with that number.
    std::optional<Run> await(const std::string& name, std::optional<std::int64_t> expected,
                             std::chrono::milliseconds limit);

    /// Those to which something happened last, the last first.
    std::vector<Run> latest(std::int64_t limit);

    /// The run as JSON, with the first so many spans of missing indices.
    Json describe(const Run& run, std::size_t spans);

    /// Its files behind that path, by their paths: `limit` at most.
    std::vector<RunFile> files(const Run& run, const std::string& behind, std::int64_t limit);

    /// How many of its files have yet to get their digests.
    std::int64_t pendingDigests(const Run& run);

    /// Files behind that record of which digests are to be taken: `limit` at most.
    std::vector<RunFile> undigested(std::int64_t after, std::int64_t limit);

    /// Writes down what came of them.
    void setDigests(const std::vector<RunFile>& digested);

    /// Forgets some of what has ended before that time.
    void removeOld(std::int64_t before);

private:
    class Batch;
    void change(const std::function<void(Batch&)>& work);
    template<class Work>
    auto ask(Work work);

    RecordLog& log;
    const RunPattern pattern;
    const RunPattern sentinel;
    std::atomic<std::int64_t> counted{0};
    std::mutex following; // one thread counts at a time
};

} // namespace relay
