// The log of announcements on disk: its records, who has got how far, and the dead letters.
#include "relay/record_log.h"

#include "relay/messages.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace relay {

namespace {

constexpr std::size_t window = 4000; // records that one read looks at
constexpr std::int64_t removedAtOnce = 2000;
constexpr std::int64_t carriedAtOnce = 10000;
constexpr std::int64_t microsecond = 1000; // nanoseconds
// A child that a killed relay has just forked may still hold its lock, until it runs its program.
constexpr int triesToLock = 100;
constexpr int pauseBetweenTries = 20; // milliseconds

// Each brings a database to the version that is its place in this list, counted from 1.
constexpr std::array<const char*, 1> migrations = {R"(
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
)"};

constexpr const char* columns = "SELECT seq, kind, path, detector, size, mtime, inode, type, way, "
                                "arrival, repeats FROM records ";

Record recordIn(const Statement& row) {
    Record record;
    record.sequence = row.integer(0);
    record.kind = static_cast<Kind>(std::clamp<std::int64_t>(row.integer(1), 0, 3));
    record.path = row.bytes(2);
    record.detector = row.bytes(3);
    if (!row.isNull(4)) {
        record.identity =
            Identity{row.integer(4), row.integer(5), static_cast<std::uint64_t>(row.integer(6))};
    }
    record.type = static_cast<FileType>(std::clamp<std::int64_t>(row.integer(7), 0, 4));
    record.way = static_cast<Way>(std::clamp<std::int64_t>(row.integer(8), 0, 2));
    record.arrival = row.integer(9);
    record.repeats = row.integer(10);
    return record;
}

/// Does nothing if the file stands in the log.
void writeRecord(Statement& insert, const Record& record) {
    const Use use(insert);
    insert.bind(1, record.sequence)
        .bind(2, static_cast<std::int64_t>(record.kind))
        .bindBytes(3, record.path)
        .bindText(4, record.detector);
    if (record.identity) {
        insert.bind(5, record.identity->size)
            .bind(6, record.identity->mtime)
            .bind(7, static_cast<std::int64_t>(record.identity->inode));
    } else {
        insert.bindNull(5).bindNull(6).bindNull(7);
    }
    insert.bind(8, static_cast<std::int64_t>(record.type))
        .bind(9, static_cast<std::int64_t>(record.way))
        .bind(10, record.arrival)
        .bind(11, record.repeats);
    insert.step();
}

void migrate(Database& database, const std::string& file) {
    const std::int64_t version = database.number("PRAGMA user_version");
    const auto newest = static_cast<std::int64_t>(migrations.size());
    if (version < 0 || version > newest) {
        throw std::runtime_error(file + " was written by a newer version of skarn-relay (schema " +
                                 std::to_string(version) + ", this one knows " +
                                 std::to_string(newest) + ")");
    }
    if (version == 0) {
        database.execute("PRAGMA auto_vacuum = INCREMENTAL");
    }
    // With FULL, what is committed survives a cut of the power; NORMAL may lose the last commits.
    database.execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
                     "PRAGMA cell_size_check = ON; PRAGMA temp_store = MEMORY;"
                     "PRAGMA journal_size_limit = 16777216");
    for (std::int64_t next = version; next < newest; ++next) {
        Transaction transaction(database);
        database.execute(migrations.at(static_cast<std::size_t>(next)));
        database.execute("PRAGMA user_version = " + std::to_string(next + 1));
        transaction.commit();
    }
}

} // namespace

struct RecordLog::Statements {
    explicit Statements(Database& in)
        : insert(in.prepare("INSERT INTO records(seq, kind, path, detector, size, mtime, inode, "
                            "type, way, arrival, repeats) VALUES (?,?,?,?,?,?,?,?,?,?,?) "
                            "ON CONFLICT DO NOTHING")),
          ofPath(in.prepare("SELECT max(seq) FROM records WHERE kind = 0 AND path = ?")),
          ofFile(in.prepare("SELECT max(seq) FROM records WHERE kind = 0 AND path = ? AND "
                            "inode = ? AND mtime = ? AND size = ?")),
          repeat(in.prepare("UPDATE records SET repeats = repeats + 1 WHERE seq = ?")),
          takeOut(in.prepare("INSERT OR REPLACE INTO intake VALUES (1, ?, ?, ?, ?, ?)")),
          behind(in.prepare(std::string(columns) + "WHERE seq > ? ORDER BY seq LIMIT ?")),
          position(in.prepare("INSERT OR REPLACE INTO subscribers VALUES (?, ?, ?, ?, ?)")) {}

    Statement insert;
    Statement ofPath;
    Statement ofFile;
    Statement repeat;
    Statement takeOut;
    Statement behind;
    Statement position;
};

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
    const std::lock_guard<std::mutex> guard(mutex);
    try {
        open();
        // SQLite takes a damaged write-ahead log for the end of it. But what was taken out had been
        // committed before.
        if (storedBatch < takenOut()) {
            warn(file + " lacks what was written into it last");
            setAside();
        }
    } catch (const DatabaseError& error) {
        if (!error.isDamage()) {
            throw;
        }
        warn(error.what());
        setAside();
    }
}

RecordLog::~RecordLog() = default;

void RecordLog::open() {
    statements.reset();
    database = std::make_unique<Database>(file, Database::Access::readWrite);
    migrate(*database, file);
    statements = std::make_unique<Statements>(*database);
    last = std::max({last, database->number("SELECT max(last) FROM intake"),
                     database->number("SELECT max(seq) FROM records")});
    storedBatch = database->number("SELECT max(batch) FROM intake");
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
    statements.reset();
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
    carryOver(aside);
}

void RecordLog::carryOver(const std::string& damagedFile) {
    std::int64_t records = 0;
    std::int64_t forwardTo = 0;
    bool isWhole = true;
    const auto copy = [&](const char* order) {
        try {
            Database damaged(damagedFile, Database::Access::readOnly);
            Statement rows = damaged.prepare(std::string(columns) + order);
            rows.bind(1, forwardTo);
            for (bool isMore = rows.step(); isMore;) {
                Transaction transaction(*database);
                for (std::int64_t n = 0; isMore && n < carriedAtOnce; ++n) {
                    const Record record = recordIn(rows);
                    forwardTo = std::max(forwardTo, record.sequence);
                    last = std::max(last, record.sequence);
                    writeRecord(statements->insert, record);
                    ++records;
                    try {
                        isMore = rows.step();
                    } catch (const DatabaseError&) {
                        isMore = false;
                        isWhole = false;
                    }
                }
                transaction.commit();
            }
        } catch (const DatabaseError&) {
            isWhole = false;
        }
    };
    copy("WHERE seq > ? ORDER BY seq");
    if (!isWhole) {
        // From the other end, down to where the first way came to.
        copy("WHERE seq > ? ORDER BY seq DESC");
    }
    const auto copyTable = [&](const char* table, int width) {
        try {
            Database damaged(damagedFile, Database::Access::readOnly);
            Statement rows = damaged.prepare(std::string("SELECT * FROM ") + table);
            std::string marks = "?";
            for (int n = 1; n < width; ++n) {
                marks += ",?";
            }
            Statement insert = database->prepare(std::string("INSERT OR REPLACE INTO ") + table +
                                                 " VALUES (" + marks + ")");
            while (rows.step()) {
                std::vector<std::string> texts(static_cast<std::size_t>(width));
                for (int n = 0; n < width; ++n) {
                    auto& text = texts[static_cast<std::size_t>(n)];
                    text = rows.bytes(n);
                    insert.bindText(n + 1, text); // the columns' types make numbers of them
                }
                insert.run();
            }
        } catch (const DatabaseError&) {
            isWhole = false;
        }
    };
    copyTable("intake", 6);
    database
        ->prepare("INSERT INTO intake VALUES (1, ?, 0, 0, '', ?) ON CONFLICT (one) DO UPDATE SET "
                  "last = excluded.last, batch = max(batch, excluded.batch)")
        .bind(1, last)
        .bind(2, takenOut())
        .run();
    copyTable("subscribers", 5);
    copyTable("dead_letters", 5);
    warn(std::to_string(records) + " records of the damaged database were carried over into a " +
         "new one" + (isWhole ? "" : "; others could not be read: compare with the targets"));
}

template<class Work>
auto RecordLog::guarded(Work work) -> decltype(work()) {
    const std::lock_guard<std::mutex> guard(mutex);
    try {
        if (!statements) {
            open(); // it could not be opened after it was set aside
        }
        return work();
    } catch (const DatabaseError& error) {
        if (!error.isDamage()) {
            throw;
        }
        warn(error.what());
        setAside();
    }
    return work();
}

std::int64_t RecordLog::lastOf(const Record& record) {
    Statement& row = record.identity ? statements->ofFile : statements->ofPath;
    const Use use(row);
    row.bindBytes(1, record.path);
    if (record.identity) {
        row.bind(2, static_cast<std::int64_t>(record.identity->inode))
            .bind(3, record.identity->mtime)
            .bind(4, record.identity->size);
    }
    return row.step() ? row.integer(0) : 0;
}

void RecordLog::append(std::vector<Record>& records, const TakeOut& takeOut) {
    guarded([&] {
        std::int64_t next = last;
        try {
            Transaction transaction(*database);
            for (Record& record : records) {
                record.sequence = next + 1;
                std::int64_t known = record.isGone ? lastOf(record) : 0;
                if (known == 0) {
                    writeRecord(statements->insert, record);
                    known = database->changes() == 0 ? lastOf(record) : 0;
                }
                if (known == 0) {
                    ++next;
                } else {
                    statements->repeat.bind(1, known).run();
                    record.sequence = 0;
                }
            }
            statements->takeOut.bind(1, next)
                .bind(2, static_cast<std::int64_t>(takeOut.count))
                .bind(3, static_cast<std::int64_t>(takeOut.digest))
                .bindText(4, takeOut.pipe)
                .bind(5, takeOut.batch)
                .run();
            transaction.commit();
        } catch (...) {
            for (Record& record : records) {
                record.sequence = 0;
            }
            throw;
        }
        last = next;
        grown.notify_all();
    });
}

std::optional<TakeOut> RecordLog::openTakeOut() {
    return guarded([&]() -> std::optional<TakeOut> {
        Statement row = database->prepare("SELECT count, digest, pipe, batch FROM intake");
        if (!row.step() || takenOut() == row.integer(3)) {
            return std::nullopt;
        }
        return TakeOut{static_cast<std::uint64_t>(row.integer(0)),
                       static_cast<std::uint64_t>(row.integer(1)), row.bytes(2), row.integer(3)};
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
        Statement& rows = statements->behind;
        const Use use(rows);
        rows.bind(1, after).bind(2, static_cast<std::int64_t>(window));
        std::size_t seen = 0;
        while (page.records.size() < limit && rows.step()) {
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
        Statement& rows = statements->behind;
        const Use use(rows);
        rows.bind(1, sequence - 1).bind(2, 1);
        if (!rows.step() || rows.integer(0) != sequence) {
            return std::nullopt;
        }
        return recordIn(rows);
    });
}

std::int64_t RecordLog::positionOf(const Start& start) {
    return guarded([&]() -> std::int64_t {
        const std::int64_t first = database->number("SELECT min(seq) FROM records");
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
        Statement& rows = statements->behind;
        while (above - below > 1) {
            const std::int64_t middle = below + (above - below) / 2;
            const Use use(rows);
            rows.bind(1, middle - 1).bind(2, 1);
            if (!rows.step() || rows.integer(0) >= above || rows.integer(9) >= start.value) {
                above = middle;
            } else {
                below = std::min(rows.integer(0), above - 1);
            }
        }
        return below;
    });
}

void RecordLog::waitBehind(std::int64_t sequence, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> guard(mutex);
    grown.wait_for(guard, limit, [&] { return last > sequence || isInterrupted; });
}

void RecordLog::interrupt() {
    const std::lock_guard<std::mutex> guard(mutex);
    isInterrupted = true;
    grown.notify_all();
}

LogFigures RecordLog::figures() {
    return guarded([&] {
        LogFigures result;
        result.first = database->number("SELECT min(seq) FROM records");
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
        Statement rows = database->prepare("SELECT name, acknowledged, dropped, filter, "
                                           "max_backlog FROM subscribers ORDER BY name");
        while (rows.step()) {
            found.push_back(
                {rows.bytes(0), rows.integer(1), rows.integer(2), rows.bytes(3), rows.integer(4)});
        }
        return found;
    });
}

void RecordLog::setPosition(const Position& position) {
    guarded([&] {
        statements->position.bindText(1, position.name)
            .bind(2, position.acknowledged)
            .bind(3, position.dropped)
            .bindText(4, position.filter)
            .bind(5, position.maxBacklog)
            .run();
    });
}

void RecordLog::removeSubscriber(const std::string& name) {
    guarded([&] {
        Transaction transaction(*database);
        for (const char* const text : {"DELETE FROM subscribers WHERE name = ?",
                                       "DELETE FROM dead_letters WHERE subscriber = ?"}) {
            Statement remove = database->prepare(text);
            remove.bindText(1, name).run();
        }
        transaction.commit();
    });
}

void RecordLog::addDeadLetter(const std::string& subscriber, const DeadLetter& letter) {
    guarded([&] {
        database->prepare("INSERT OR REPLACE INTO dead_letters VALUES (?, ?, ?, ?, ?)")
            .bindText(1, subscriber)
            .bind(2, letter.sequence)
            .bind(3, letter.attempts)
            .bind(4, letter.since)
            .bindText(5, letter.reason)
            .run();
    });
}

std::vector<DeadLetter> RecordLog::deadLetters(const std::string& subscriber) {
    return guarded([&] {
        std::vector<DeadLetter> found;
        Statement rows = database->prepare(
            "SELECT seq, attempts, since, reason, path FROM dead_letters JOIN records USING (seq) "
            "WHERE subscriber = ? ORDER BY seq");
        rows.bindText(1, subscriber);
        while (rows.step()) {
            found.push_back(
                {rows.integer(0), rows.integer(1), rows.integer(2), rows.bytes(3), rows.bytes(4)});
        }
        return found;
    });
}

std::int64_t RecordLog::countDeadLetters(const std::string& subscriber) {
    return guarded([&] {
        Statement row = database->prepare("SELECT count(*) FROM dead_letters WHERE subscriber = ?");
        return row.bindText(1, subscriber).step() ? row.integer(0) : 0;
    });
}

void RecordLog::removeDeadLetter(const std::string& subscriber, std::int64_t sequence) {
    guarded([&] {
        database->prepare("DELETE FROM dead_letters WHERE subscriber = ? AND seq = ?")
            .bindText(1, subscriber)
            .bind(2, sequence)
            .run();
    });
}

std::int64_t RecordLog::usedBytes() {
    return database->number("PRAGMA page_size") *
           (database->number("PRAGMA page_count") - database->number("PRAGMA freelist_count"));
}

std::int64_t RecordLog::removeOld(std::int64_t upTo, std::int64_t before,
                                  std::int64_t largestBytes) {
    return guarded([&] {
        const bool isTooLarge = usedBytes() > largestBytes;
        const std::string old =
            "SELECT seq FROM records WHERE seq <= ? AND arrival < ? AND seq NOT IN "
            "(SELECT seq FROM dead_letters) ORDER BY seq LIMIT " +
            std::to_string(removedAtOnce);
        Statement find = database->prepare("SELECT max(seq) FROM (" + old + ")");
        Statement remove = database->prepare("DELETE FROM records WHERE seq IN (" + old + ")");
        for (Statement* const each : {&find, &remove}) {
            each->bind(1, upTo).bind(2, isTooLarge ? INT64_MAX : before);
        }
        const std::int64_t lastOld = find.step() ? find.integer(0) : 0;
        find.reset();
        if (lastOld > 0) {
            remove.run();
            database->execute("PRAGMA incremental_vacuum(1000)");
        }
        return lastOld;
    });
}

} // namespace relay
