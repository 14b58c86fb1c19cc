// The log of announcements on disk: its records, who has got how far, and the dead letters.
//
// The schema is documented in docs/relay.md. What is written is on the disk when a call returns.
#pragma once

#include "relay/filter.h"
#include "relay/record.h"
#include "utilities/descriptors.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace SQLite {
class Database;
}

namespace relay {

/// What the database could not do, in one sentence.
class DatabaseError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Which bytes at the beginning of which pipe have been written into the log, and are to be taken
/// out next.
struct TakeOut {
    std::uint64_t count = 0;  // bytes
    std::uint64_t digest = 0; // of these bytes
    std::string pipe;         // which one: see pipeIdentity
    std::int64_t batch = 0;   // a number that no other batch of this log has
};

/// A part of the log, as one subscriber sees it.
struct Page {
    std::vector<Record> records; // that match, in order
    std::int64_t seenTo = 0;     // the last record that was looked at, whether it matches or not
};

/// Where a subscriber stands.
struct Position {
    std::string name;
    std::int64_t acknowledged = 0; // all records up to this one
    std::int64_t dropped = 0;      // records that were removed before it had them
    std::string filter;            // of one made over HTTP, as text; else empty
    std::int64_t maxBacklog = 0;   // of one made over HTTP
};

struct DeadLetter {
    std::int64_t sequence = 0;
    std::int64_t attempts = 0;
    std::int64_t since = 0; // nanoseconds since 1970
    std::string reason;
    std::string path;
};

/// What the log holds.
struct LogFigures {
    std::int64_t first = 0; // the oldest record's number, 0 if there is none
    std::int64_t last = 0;  // the newest record's number that was ever given
    std::int64_t bytes = 0; // of the file
};

/// Owns the one connection to the database. All calls may be made by any thread, and throw
/// DatabaseError when they fail; then nothing was changed. A database that turns out to be damaged
/// is set aside under a name that is told, what can still be read of it is carried over into a new
/// one, and the call goes on with that. So is, at the opening, one that lacks a batch that was
/// taken out.
class RecordLog {
public:
    /// Opens the log in the folder, and makes both if they are missing.
    explicit RecordLog(std::string folder);
    ~RecordLog();
    RecordLog(const RecordLog&) = delete;
    RecordLog& operator=(const RecordLog&) = delete;

    /// Writes the records in one transaction with what is going to be taken out of the pipe. A file
    /// that stands in the log already, or that is gone while its name stands there, is counted as a
    /// repeat of it instead. Gives the new records their numbers; those that were repeats keep 0.
    void append(std::vector<Record>& records, const TakeOut& takeOut);

    /// Does the work on the database in one transaction, in which the records that it returns are
    /// written behind all others.
    void change(const std::function<std::vector<Record>(SQLite::Database&)>& work);

    /// The number of the last batch: those that follow have greater ones.
    std::int64_t lastBatch();

    /// What was to be taken out last, unless it is known to have been taken out.
    std::optional<TakeOut> openTakeOut();

    /// Notes that a batch was taken out of its pipe. Cheap: it survives the end of the process, but
    /// not of the machine, which no pipe survives either.
    void noteTakenOut(std::int64_t batch);

    /// True if the log has a record of that path whose file is this very one, or, where it can't be
    /// told (it is gone, or could not be looked at), any record of that path.
    bool knows(const Record& record);

    /// Records behind that number: `limit` at most, found among the next few thousand.
    Page read(std::int64_t after, const Filter& filter, std::size_t limit);
    std::optional<Record> record(std::int64_t sequence);

    /// The number in front of the first record that one who starts there gets.
    std::int64_t positionOf(const Start& start);

    /// Waits until there is a record behind that number, for so long at most, or for `interrupt`:
    /// false then.
    bool waitBehind(std::int64_t sequence, std::chrono::milliseconds limit);

    /// Wakes all that wait; later calls of waitBehind return at once.
    void interrupt();

    LogFigures figures();

    /// The positions of all subscribers that are known to the log, by name.
    std::vector<Position> positions();
    void setPosition(const Position& position);
    void removeSubscriber(const std::string& name);

    void addDeadLetter(const std::string& subscriber, const DeadLetter& letter);
    std::vector<DeadLetter> deadLetters(const std::string& subscriber);
    std::int64_t countDeadLetters(const std::string& subscriber);
    void removeDeadLetter(const std::string& subscriber, std::int64_t sequence);

    /// The last of the oldest records, some thousand and none behind `upTo`, that came before that
    /// time or are too many for that size. 0 if there are none, but for dead letters.
    std::int64_t oldTo(std::int64_t upTo, std::int64_t before, std::int64_t largestBytes);

    /// Removes the records up to that number, but for dead letters.
    void removeTo(std::int64_t sequence);

private:
    void open();
    void setAside();
    std::int64_t takenOut() const;
    std::int64_t lastOf(const Record& record);
    template<class Work>
    auto guarded(Work work) -> decltype(work());

    const std::string folder;
    std::string file;
    Descriptor lock;      // of the folder: one relay has it at a time
    Descriptor takenFile; // holds the number of the batch that was taken out last
    std::mutex mutex;     // guards all below
    std::unique_ptr<SQLite::Database> database;
    std::int64_t last = 0;        // the number that was given last
    std::int64_t storedBatch = 0; // the last one, when the database was opened
    bool isInterrupted = false;
    std::condition_variable grown;
};

} // namespace relay
