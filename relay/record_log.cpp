// The log of announcements on disk: its records, who has got how far, and the dead letters.
#include "relay/record_log.h"

#include "relay/messages.h"
#include "relay/salvage.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>

#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace relay {

namespace {

constexpr std::int64_t window = 4000; // records that one read looks at
constexpr std::int64_t removedAtOnce = 2000;
constexpr std::int64_t microsecond = 1000; // nanoseconds
// A child that a killed relay has just forked may still hold its lock, until it runs its program.
constexpr int triesToLock = 100;
constexpr int pauseBetweenTries = 20; // milliseconds

// Each brings a database to the version that is its place in this list, counted from 1.
constexpr std::array<const char*, 2> migrations = {R"(
CREATE TABLE records(
    seq INTEGER PRIMARY KEY,
    kind INTEGER NOT NULL,
    path BLOB NOT NULL,
    detector TEXT NOT NULL,
    size INTEGER,
    mtime INTEGER,
    inode INTEGER,
    type INTEGER NOT NULL,
    way INTEGER NOT NULL,
    arrival INTEGER NOT NULL,
    repeats INTEGER NOT NULL DEFAULT 0);
CREATE UNIQUE INDEX records_by_file ON records(path, inode, mtime, size) WHERE kind = 0;
CREATE TABLE intake(
    one INTEGER PRIMARY KEY CHECK (one = 1),
    last INTEGER NOT NULL,
    count INTEGER NOT NULL,
    digest INTEGER NOT NULL,
    pipe TEXT NOT NULL,
    batch INTEGER NOT NULL);
CREATE TABLE subscribers(
    name TEXT PRIMARY KEY,
    acknowledged INTEGER NOT NULL,
    dropped INTEGER NOT NULL,
    filter TEXT NOT NULL,
    max_backlog INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE dead_letters(
    subscriber TEXT NOT NULL,
    seq INTEGER NOT NULL,
    attempts INTEGER NOT NULL,
    since INTEGER NOT NULL,
    reason TEXT NOT NULL,
    PRIMARY KEY (subscriber, seq)) WITHOUT ROWID;
)",
                                                   R"(
CREATE TABLE runs(
    name TEXT PRIMARY KEY,
    state INTEGER NOT NULL DEFAULT 0,
    ended_by TEXT NOT NULL DEFAULT '',
    expected INTEGER,
    touched INTEGER NOT NULL,
    ended INTEGER NOT NULL DEFAULT 0,
    reopened INTEGER NOT NULL DEFAULT 0) WITHOUT ROWID;
CREATE INDEX runs_by_state ON runs(state, touched);
CREATE INDEX runs_by_time ON runs(touched);
CREATE TABLE run_parts(
    run TEXT NOT NULL,
    detector TEXT NOT NULL,
    files INTEGER NOT NULL,
    bytes INTEGER NOT NULL,
    first INTEGER NOT NULL,
    last INTEGER NOT NULL,
    indices INTEGER NOT NULL,
    lowest INTEGER,
    highest INTEGER,
    passed INTEGER NOT NULL DEFAULT 0,
    PRIMARY KEY (run, detector)) WITHOUT ROWID;
CREATE INDEX run_parts_by_detector ON run_parts(detector) WHERE passed = 0;
CREATE TABLE run_files(
    run TEXT NOT NULL,
    path TEXT NOT NULL,
    seq INTEGER NOT NULL,
    detector TEXT NOT NULL,
    number INTEGER,
    size INTEGER NOT NULL,
    mtime INTEGER NOT NULL,
    inode INTEGER NOT NULL,
    digest_state INTEGER NOT NULL,
    digest TEXT NOT NULL,
    PRIMARY KEY (run, path)) WITHOUT ROWID;
CREATE INDEX run_files_by_number ON run_files(run, detector, number) WHERE number NOTNULL;
CREATE INDEX run_files_pending ON run_files(seq) WHERE digest_state = 1;
CREATE TABLE runs_position(one INTEGER PRIMARY KEY CHECK (one = 1), seq INTEGER NOT NULL);
)"};

// SQL that is used in more than one place.
constexpr char selectBehind[] =
    "SELECT seq, kind, path, detector, size, mtime, inode, type, way, arrival, repeats "
    "FROM records WHERE seq > ? ORDER BY seq LIMIT ?";
constexpr char insertRecord[] =
    "INSERT INTO records(path, inode, mtime, size, seq, kind, detector, type, way, arrival) "
    "VALUES (?,?,?,?,?,?,?,?,?,?) "
    "ON CONFLICT (path, inode, mtime, size) WHERE kind = 0 DO NOTHING";
constexpr char setLast[] = "INSERT INTO intake VALUES (1, ?, 0, 0, '', 0) "
                           "ON CONFLICT (one) DO UPDATE SET last = excluded.last";
constexpr char selectFirst[] = "SELECT min(seq) FROM records";

using SQLite::Statement;

/// A statement with these values for its marks.
template<class... Values>
Statement prepared(SQLite::Database& database, const char* text, const Values&... values) {
    Statement statement(database, text);
    int mark = 0;
    (statement.bind(++mark, values), ...);
    return statement;
}

template<class... Values>
void run(SQLite::Database& database, const char* text, const Values&... values) {
    prepared(database, text, values...).exec();
}

/// The one number that a query gives; 0 for NULL.
template<class... Values>
std::int64_t number(SQLite::Database& database, const char* query, const Values&... values) {
    Statement row = prepared(database, query, values...);
    return row.executeStep() ? row.getColumn(0).getInt64() : 0;
}

/// Everything that the work does is in the database when this returns, or nothing if it throws.
template<class Work>
void whole(SQLite::Database& database, Work work) {
    if (sqlite3_get_autocommit(database.getHandle()) == 0) {
        database.exec("ROLLBACK"); // of one whose own rollback failed
    }
    SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
    work();
    transaction.commit();
}

/// True if what stands in the file is no database any more: trying again helps nothing. All else (a
/// full disk, an I/O error, no rights) may pass.
bool isDamage(const SQLite::Exception& error) {
    const int primary = error.getErrorCode() & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

Record recordIn(const Statement& row) {
    const auto integer = [&row](int column) {
        return static_cast<std::int64_t>(row.getColumn(column).getInt64());
    };
    Record record;
    record.sequence = integer(0);
    record.kind = static_cast<Kind>(std::clamp<std::int64_t>(integer(1), 0, 3));
    record.path = row.getColumn(2).getString();
    record.detector = row.getColumn(3).getString();
    if (!row.isColumnNull(4)) {
        record.identity = Identity{integer(4), integer(5), static_cast<std::uint64_t>(integer(6))};
    }
    record.type = static_cast<FileType>(std::clamp<std::int64_t>(integer(7), 0, 4));
    record.way = static_cast<Way>(std::clamp<std::int64_t>(integer(8), 0, 2));
    record.arrival = integer(9);
    record.repeats = integer(10);
    return record;
}

void bindPath(Statement& statement, int mark, const Record& record) {
    statement.bindNoCopy(mark, record.path.data(), static_cast<int>(record.path.size()));
}

void bindIdentity(Statement& statement, int mark, const Identity& identity) {
    statement.bind(mark, static_cast<std::int64_t>(identity.inode));
    statement.bind(mark + 1, identity.mtime);
    statement.bind(mark + 2, identity.size);
}

/// False if the file stands in the log.
bool insertOne(Statement& insert, const Record& record, std::int64_t sequence) {
    insert.reset();
    bindPath(insert, 1, record);
    if (record.identity) {
        bindIdentity(insert, 2, *record.identity);
    } else {
        for (const int mark : {2, 3, 4}) {
            insert.bind(mark); // NULL
        }
    }
    insert.bind(5, sequence);
    insert.bind(6, static_cast<int>(record.kind));
    insert.bindNoCopy(7, record.detector);
    insert.bind(8, static_cast<int>(record.type));
    insert.bind(9, static_cast<int>(record.way));
    insert.bind(10, record.arrival);
    return insert.exec() != 0;
}

void migrate(SQLite::Database& database, const std::string& file) {
    const std::int64_t version = number(database, "PRAGMA user_version");
    const auto newest = static_cast<std::int64_t>(migrations.size());
    if (version < 0 || version > newest) {
        throw std::runtime_error(file + " was written by a newer version of skarn-relay (schema " +
                                 std::to_string(version) + ", this one knows " +
                                 std::to_string(newest) + ")");
    }
    if (version == 0) {
        database.exec("PRAGMA auto_vacuum = INCREMENTAL");
    }
    // With FULL, what is committed survives a cut of the power; NORMAL may lose the last commits.
    database.exec("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
                  "PRAGMA cell_size_check = ON; PRAGMA temp_store = MEMORY;"
                  "PRAGMA journal_size_limit = 16777216");
    for (std::int64_t next = version; next < newest; ++next) {
        whole(database, [&] {
            database.exec(migrations.at(static_cast<std::size_t>(next)));
            database.exec("PRAGMA user_version = " + std::to_string(next + 1));
        });
    }
}

} // namespace

RecordLog::RecordLog(std::string inFolder)
    : folder(std::move(inFolder)), file(folder + "/relay.db") {
    std::filesystem::create_directories(std::filesystem::path(folder).parent_path());
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        throw std::runtime_error("cannot make " + folder + ": " + systemError(errno));
    }
    lock = Descriptor(::open((folder + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lock) {
        throw std::runtime_error("cannot open " + folder + "/lock: " + systemError(errno));
    }
    for (int tries = 0; ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0; ++tries) {
        if (tries == triesToLock) {
            throw std::runtime_error("another skarn-relay works in " + folder);
        }
        ::poll(nullptr, 0, pauseBetweenTries);
    }
    takenFile = Descriptor(::open((folder + "/taken").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    // Without its account of memory, which nobody asks for, it takes no lock for each allocation.
    // Refused, without harm, once there is a connection.
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    guarded([&] {
        // SQLite takes a damaged write-ahead log for the end of it. But what was taken out had been
        // committed before.
        if (storedBatch < takenOut()) {
            warn(file + " lacks what was written into it last");
            setAside();
        }
    });
}

RecordLog::~RecordLog() = default;

void RecordLog::open() {
    const int mode = SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | SQLite::OPEN_NOMUTEX;
    auto opened = std::make_unique<SQLite::Database>(file, mode);
    migrate(*opened, file);
    last = std::max({last, number(*opened, "SELECT max(last) FROM intake"),
                     number(*opened, "SELECT max(seq) FROM records")});
    storedBatch = number(*opened, "SELECT max(batch) FROM intake");
    database = std::move(opened);
}

std::int64_t RecordLog::takenOut() const {
    std::int64_t taken = 0;
    const ssize_t got = ::pread(takenFile.get(), &taken, sizeof taken, 0);
    return got == sizeof taken ? taken : 0;
}

std::int64_t RecordLog::lastBatch() {
    const std::lock_guard<std::mutex> guard(mutex);
    return std::max(storedBatch, takenOut());
}

void RecordLog::setAside() {
    database.reset();
    const std::int64_t time = now();
    const std::string aside = folder + "/damaged-" + std::to_string(time) + ".db";
    for (const char* const suffix : {"", "-wal"}) {
        if (std::rename((file + suffix).c_str(), (aside + suffix).c_str()) != 0 &&
            errno != ENOENT) {
            throw std::runtime_error("cannot set the damaged " + file + suffix +
                                     " aside: " + systemError(errno));
        }
    }
    ::unlink((file + "-shm").c_str());
    warn("the database was damaged and is set aside as " + aside);
    // No number may be given twice, whatever can't be read any more: at less than a million records
    // a second, none that was given has reached this one.
    last = std::max(last, time / microsecond);
    open();
    const bool isWhole = salvage(aside, *database);
    last = std::max(last, number(*database, "SELECT max(seq) FROM records"));
    run(*database,
        "INSERT INTO intake VALUES (1, ?, 0, 0, '', ?) ON CONFLICT (one) DO UPDATE SET "
        "last = excluded.last, batch = max(batch, excluded.batch)",
        last, takenOut());
    storedBatch = number(*database, "SELECT max(batch) FROM intake");
    warn(std::to_string(number(*database, "SELECT count(*) FROM records")) +
         " records of the damaged database were carried over into a new one" +
         (isWhole ? "" : "; others could not be: compare with the targets"));
}

template<class Work>
auto RecordLog::guarded(Work work) -> decltype(work()) {
    const std::lock_guard<std::mutex> guard(mutex);
    try {
        try {
            if (!database) {
                open();
            }
            return work();
        } catch (const SQLite::Exception& error) {
            if (!isDamage(error)) {
                throw;
            }
            warn(std::string("the database failed: ") + error.what());
            setAside();
        }
        return work();
    } catch (const SQLite::Exception& error) {
        std::string sentence = std::string("the database failed: ") + error.what();
        if (database && (error.getErrorCode() & 0xff) == SQLITE_IOERR) {
            sentence += " (system error " +
                        std::to_string(sqlite3_system_errno(database->getHandle())) + ")";
        }
        throw DatabaseError(sentence);
    }
}

std::int64_t RecordLog::lastOf(const Record& record) {
    std::string query = "SELECT max(seq) FROM records WHERE kind = 0 AND path = ?";
    if (record.identity) {
        query += " AND inode = ? AND mtime = ? AND size = ?";
    }
    Statement row(*database, query);
    bindPath(row, 1, record);
    if (record.identity) {
        bindIdentity(row, 2, *record.identity);
    }
    return row.executeStep() ? row.getColumn(0).getInt64() : 0;
}

void RecordLog::append(std::vector<Record>& records, const TakeOut& takeOut) {
    guarded([&] {
        std::int64_t newest = last;
        std::vector<std::int64_t> numbers;
        numbers.reserve(records.size());
        whole(*database, [&] {
            Statement insert(*database, insertRecord);
            for (const Record& record : records) {
                std::int64_t known = record.isGone ? lastOf(record) : 0;
                if (known == 0 && insertOne(insert, record, newest + 1)) {
                    numbers.push_back(++newest);
                    continue;
                }
                known = known == 0 ? lastOf(record) : known;
                run(*database, "UPDATE records SET repeats = repeats + 1 WHERE seq = ?", known);
                numbers.push_back(0);
            }
            run(*database, "INSERT OR REPLACE INTO intake VALUES (1, ?, ?, ?, ?, ?)", newest,
                static_cast<std::int64_t>(takeOut.count), static_cast<std::int64_t>(takeOut.digest),
                takeOut.pipe, takeOut.batch);
        });
        for (std::size_t n = 0; n < records.size(); ++n) {
            records[n].sequence = numbers[n];
        }
        last = newest;
        grown.notify_all();
    });
}

void RecordLog::change(const std::function<std::vector<Record>(SQLite::Database&)>& work) {
    guarded([&] {
        std::int64_t newest = last;
        whole(*database, [&] {
            newest = last;
            for (const Record& each : work(*database)) {
                Statement insert(*database, insertRecord);
                insertOne(insert, each, ++newest);
                run(*database, setLast, newest);
            }
        });
        if (newest > last) {
            last = newest;
            grown.notify_all();
        }
    });
}

std::optional<TakeOut> RecordLog::openTakeOut() {
    return guarded([&]() -> std::optional<TakeOut> {
        Statement row = prepared(*database, "SELECT count, digest, pipe, batch FROM intake");
        if (!row.executeStep() || takenOut() == row.getColumn(3).getInt64()) {
            return std::nullopt;
        }
        return TakeOut{static_cast<std::uint64_t>(row.getColumn(0).getInt64()),
                       static_cast<std::uint64_t>(row.getColumn(1).getInt64()),
                       row.getColumn(2).getString(), row.getColumn(3).getInt64()};
    });
}

void RecordLog::noteTakenOut(std::int64_t batch) {
    // If it fails, a start that comes next looks at the files of the batch once more.
    static_cast<void>(::pwrite(takenFile.get(), &batch, sizeof batch, 0));
}

bool RecordLog::knows(const Record& record) {
    return guarded([&] { return lastOf(record) != 0; });
}

Page RecordLog::read(std::int64_t after, const Filter& filter, std::size_t limit) {
    return guarded([&] {
        Page page;
        page.seenTo = after;
        Statement rows = prepared(*database, selectBehind, after, window);
        std::int64_t seen = 0;
        while (page.records.size() < limit && rows.executeStep()) {
            ++seen;
            Record record = recordIn(rows);
            page.seenTo = record.sequence;
            if (filter.matches(record)) {
                page.records.push_back(std::move(record));
            }
        }
        if (seen < window && page.records.size() < limit) {
            page.seenTo = std::max(after, last); // there is nothing more
        }
        return page;
    });
}

std::optional<Record> RecordLog::record(std::int64_t sequence) {
    return guarded([&]() -> std::optional<Record> {
        Statement row = prepared(*database, selectBehind, sequence - 1, 1);
        return row.executeStep() && row.getColumn(0).getInt64() == sequence
                   ? std::optional(recordIn(row))
                   : std::nullopt;
    });
}

std::int64_t RecordLog::positionOf(const Start& start) {
    return guarded([&]() -> std::int64_t {
        const std::int64_t first = number(*database, selectFirst);
        const std::int64_t oldest = first > 0 ? first - 1 : last;
        switch (start.where) {
        case Start::Where::oldest:
            return oldest;
        case Start::Where::now:
            return last;
        case Start::Where::sequence:
            return std::clamp(start.value - 1, std::min(oldest, last), last);
        case Start::Where::time:
            break;
        }
        // Times of arrival grow with the numbers, but for a clock that was set.
        std::int64_t below = oldest;
        std::int64_t above = last + 1; // the first that is surely late enough
        while (above - below > 1) {
            const std::int64_t middle = below + (above - below) / 2;
            Statement row = prepared(*database, selectBehind, middle - 1, 1);
            if (!row.executeStep() || row.getColumn(0).getInt64() >= above ||
                row.getColumn(9).getInt64() >= start.value) {
                above = middle;
            } else {
                below = row.getColumn(0).getInt64();
            }
        }
        return below;
    });
}

bool RecordLog::waitBehind(std::int64_t sequence, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> guard(mutex);
    grown.wait_for(guard, limit, [&] { return last > sequence || isInterrupted; });
    return !isInterrupted;
}

void RecordLog::interrupt() {
    const std::lock_guard<std::mutex> guard(mutex);
    isInterrupted = true;
    grown.notify_all();
}

LogFigures RecordLog::figures() {
    return guarded([&] {
        LogFigures result;
        result.first = number(*database, selectFirst);
        result.last = last;
        struct stat status {};
        for (const char* const suffix : {"", "-wal"}) {
            if (::stat((file + suffix).c_str(), &status) == 0) {
                result.bytes += status.st_size;
            }
        }
        return result;
    });
}

std::vector<Position> RecordLog::positions() {
    return guarded([&] {
        std::vector<Position> found;
        Statement rows =
            prepared(*database, "SELECT name, acknowledged, dropped, filter, max_backlog "
                                "FROM subscribers ORDER BY name");
        while (rows.executeStep()) {
            found.push_back({rows.getColumn(0).getString(), rows.getColumn(1).getInt64(),
                             rows.getColumn(2).getInt64(), rows.getColumn(3).getString(),
                             rows.getColumn(4).getInt64()});
        }
        return found;
    });
}

void RecordLog::setPosition(const Position& position) {
    guarded([&] {
        run(*database, "INSERT OR REPLACE INTO subscribers VALUES (?, ?, ?, ?, ?)", position.name,
            position.acknowledged, position.dropped, position.filter, position.maxBacklog);
    });
}

void RecordLog::removeSubscriber(const std::string& name) {
    guarded([&] {
        whole(*database, [&] {
            run(*database, "DELETE FROM subscribers WHERE name = ?", name);
            run(*database, "DELETE FROM dead_letters WHERE subscriber = ?", name);
        });
    });
}

void RecordLog::addDeadLetter(const std::string& subscriber, const DeadLetter& letter) {
    guarded([&] {
        run(*database, "INSERT OR REPLACE INTO dead_letters VALUES (?, ?, ?, ?, ?)", subscriber,
            letter.sequence, letter.attempts, letter.since, letter.reason);
    });
}

std::vector<DeadLetter> RecordLog::deadLetters(const std::string& subscriber) {
    return guarded([&] {
        std::vector<DeadLetter> found;
        Statement rows = prepared(*database,
                                  "SELECT seq, attempts, since, reason, path FROM dead_letters "
                                  "JOIN records USING (seq) WHERE subscriber = ? ORDER BY seq",
                                  subscriber);
        while (rows.executeStep()) {
            found.push_back({rows.getColumn(0).getInt64(), rows.getColumn(1).getInt64(),
                             rows.getColumn(2).getInt64(), rows.getColumn(3).getString(),
                             rows.getColumn(4).getString()});
        }
        return found;
    });
}

std::int64_t RecordLog::countDeadLetters(const std::string& subscriber) {
    return guarded([&] {
        return number(*database, "SELECT count(*) FROM dead_letters WHERE subscriber = ?",
                      subscriber);
    });
}

void RecordLog::removeDeadLetter(const std::string& subscriber, std::int64_t sequence) {
    guarded([&] {
        run(*database, "DELETE FROM dead_letters WHERE subscriber = ? AND seq = ?", subscriber,
            sequence);
    });
}

std::int64_t RecordLog::oldTo(std::int64_t upTo, std::int64_t before, std::int64_t largestBytes) {
    return guarded([&] {
        const std::int64_t pages =
            number(*database, "PRAGMA page_count") - number(*database, "PRAGMA freelist_count");
        const bool isTooLarge = pages * number(*database, "PRAGMA page_size") > largestBytes;
        return number(*database,
                      "SELECT max(seq) FROM (SELECT seq FROM records WHERE seq <= ? AND "
                      "arrival < ? AND seq NOT IN (SELECT seq FROM dead_letters) "
                      "ORDER BY seq LIMIT ?)",
                      upTo, isTooLarge ? INT64_MAX : before, removedAtOnce);
    });
}

void RecordLog::removeTo(std::int64_t sequence) {
    guarded([&] {
        run(*database,
            "DELETE FROM records WHERE seq <= ? AND seq NOT IN (SELECT seq FROM dead_letters)",
            sequence);
        database->exec("PRAGMA incremental_vacuum(1000)");
    });
}

} // namespace relay
