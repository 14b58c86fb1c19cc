// Runs: all of them, in tables of the log's database.
#include "relay/runs.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <nlohmann/json.hpp>

#include <SQLiteCpp/SQLiteCpp.h>

namespace relay {

namespace {

constexpr std::size_t countedAtOnce = 200; // the intake waits for as long
constexpr std::size_t spansInRecord = 100;
constexpr std::int64_t endedAtOnce = 200;
constexpr std::int64_t removedAtOnce = 2000; // files
constexpr auto pause = std::chrono::milliseconds(200);

/// SQL statements of one transaction, each prepared once however often it is used.
class Statements {
public:
    explicit Statements(SQLite::Database& ofDatabase) : database(ofDatabase) {}

    /// Begins a statement with these values for its marks. It is known by the place of its text,
    /// which must be a constant.
    template<std::size_t size, class... Values>
    SQLite::Statement& begin(const char (&text)[size], const Values&... values) {
        SQLite::Statement& statement = prepared.try_emplace(text, database, text).first->second;
        statement.reset();
        int mark = 0;
        (bind(statement, ++mark, values), ...);
        return statement;
    }

    /// Runs it to its end. Returns how many rows it has changed.
    template<std::size_t size, class... Values>
    std::int64_t run(const char (&text)[size], const Values&... values) {
        return begin(text, values...).exec();
    }

    /// The first column of the first row; 0 if there is none.
    template<std::size_t size, class... Values>
    std::int64_t number(const char (&text)[size], const Values&... values) {
        SQLite::Statement& row = begin(text, values...);
        return row.executeStep() ? row.getColumn(0).getInt64() : 0;
    }

    /// The first column of all rows.
    template<std::size_t size, class... Values>
    std::vector<std::string> texts(const char (&text)[size], const Values&... values) {
        std::vector<std::string> found;
        for (SQLite::Statement& row = begin(text, values...); row.executeStep();) {
            found.push_back(row.getColumn(0).getString());
        }
        return found;
    }

private:
    template<class Value>
    static void bind(SQLite::Statement& statement, int mark, const Value& value) {
        statement.bind(mark, value);
    }
    static void bind(SQLite::Statement& statement, int mark, std::optional<std::int64_t> value) {
        value ? statement.bind(mark, *value) : statement.bind(mark);
    }

    SQLite::Database& database;
    std::map<const char*, SQLite::Statement> prepared;
};

/// A row's columns one after the other.
class Columns {
public:
    explicit Columns(SQLite::Statement& ofRow) : row(ofRow) {}
    std::int64_t number() { return row.getColumn(next++).getInt64(); }
    std::string text() { return row.getColumn(next++).getString(); }
    std::optional<std::int64_t> optional() {
        const SQLite::Column column = row.getColumn(next++);
        return column.isNull() ? std::nullopt : std::optional<std::int64_t>(column.getInt64());
    }
    template<class Choice>
    Choice choice(Choice last) {
        return static_cast<Choice>(
            std::clamp<std::int64_t>(number(), 0, static_cast<std::int64_t>(last)));
    }

private:
    SQLite::Statement& row;
    int next = 0;
};

std::vector<RunFile> filesIn(SQLite::Statement& rows) {
    std::vector<RunFile> found;
    while (rows.executeStep()) {
        Columns column(rows);
        RunFile& file = found.emplace_back();
        file.run = column.text();
        file.path = column.text();
        file.sequence = column.number();
        file.detector = column.text();
        file.index = column.optional();
        Identity identity{column.number(), column.number(), 0};
        identity.inode = static_cast<std::uint64_t>(column.number());
        if (identity.inode != 0) {
            file.identity = identity;
        }
        file.digestState = column.choice(DigestState::impossible);
        file.digest = column.text();
    }
    return found;
}

} // namespace

/// One transaction: what it reads and changes. SQL has the rules of how a run goes on from one
/// state to the next.
class Runs::Batch {
public:
    Batch(SQLite::Database& inDatabase, const Runs& ofRuns) : database(inDatabase), runs(ofRuns) {}

    Statements database;
    std::vector<Record> told; // what goes into the log with the changes

    /// The run as this transaction has it.
    std::optional<Run> find(const std::string& name) {
        SQLite::Statement& row =
            database.begin("SELECT name, state, ended_by, expected, ended, reopened FROM runs "
                           "WHERE name = ?",
                           name);
        if (!row.executeStep()) {
            return std::nullopt;
        }
        Columns column(row);
        Run run;
        run.name = column.text();
        run.state = column.choice(RunState::ended);
        run.by = column.text();
        run.expected = column.optional();
        run.ended = column.number();
        run.reopened = column.number();
        SQLite::Statement& rows =
            database.begin("SELECT detector, indices, lowest, highest, files, bytes, first, last "
                           "FROM run_parts WHERE run = ? ORDER BY detector",
                           name);
        while (rows.executeStep()) {
            Columns part(rows);
            run.parts.push_back({part.text(), part.number(), part.number(), part.number()});
            run.files += part.number();
            run.bytes += part.number();
            const std::int64_t first = part.number();
            run.first = run.first == 0 ? first : std::min(run.first, first);
            run.last = std::max(run.last, part.number());
        }
        return run;
    }

    Json describe(const Run& run, std::size_t spans) {
        return jsonOf(run, judge(run, runs.settings), missing(run, spans));
    }

    /// Something has happened to the run at that time, perhaps the first.
    void touch(const std::string& name, std::int64_t time) {
        database.run("INSERT INTO runs(name, touched) VALUES (?, ?) ON CONFLICT (name) "
                     "DO UPDATE SET touched = excluded.touched",
                     name, time);
    }

    void count(const Record& record) {
        if (const auto place = runs.pattern.find(record.path)) {
            add(record, *place);
        }
        if (const auto place = runs.sentinel.find(record.path)) {
            touch(place->run, record.arrival);
            announceEnd(place->run, "a sentinel file");
        }
    }

    void end(const std::string& name, std::int64_t time) {
        database.run("UPDATE runs SET state = 2, ended = ? WHERE name = ?", time, name);
        tell(name, "ended");
    }

    /// Ends those to which nothing has happened for long enough. Returns how many they were.
    std::int64_t endOverdue(std::int64_t time) {
        const std::int64_t quiet =
            runs.settings.quiet > 0 ? runs.settings.quiet : runs.settings.forgotten;
        const auto names = database.texts(
            "SELECT name FROM runs WHERE (state = 0 AND touched <= ?) OR (state = 1 AND "
            "touched <= ?) ORDER BY touched LIMIT ?",
            time - quiet * billion, time - runs.settings.settle * billion, endedAtOnce);
        for (const std::string& name : names) {
            announceEnd(name, "quiet");
            end(name, time);
        }
        return static_cast<std::int64_t>(names.size());
    }

    /// Ends those that wait for more files, and have all: nothing is left to be waited for.
    void endComplete(std::int64_t time) {
        for (const std::string& name :
             database.texts("SELECT name FROM runs WHERE state = 1 AND expected NOTNULL")) {
            if (judge(*find(name), runs.settings).isComplete == true) {
                end(name, time);
            }
        }
    }

private:
    /// The first `limit` spans that it lacks.
    std::vector<IndexSpan> missing(const Run& run, std::size_t limit) {
        std::vector<IndexSpan> spans;
        for (const RunPart& part : run.parts) {
            const IndexSpan wanted = wantedIndices(run, part, runs.settings);
            if (part.indices == 0 || wanted.last - wanted.first + 1 == part.indices) {
                continue;
            }
            std::int64_t next = wanted.first;
            const auto addUpTo = [&](std::int64_t last) {
                if (next <= last && spans.size() < limit) {
                    spans.push_back({part.detector, next, last});
                }
            };
            SQLite::Statement& indices =
                database.begin("SELECT number FROM run_files WHERE run = ? AND detector = ? AND "
                               "number NOTNULL ORDER BY number",
                               run.name, part.detector);
            while (spans.size() < limit && indices.executeStep()) {
                const std::int64_t index = indices.getColumn(0).getInt64();
                addUpTo(index - 1);
                next = index + 1;
            }
            addUpTo(wanted.last);
        }
        return spans;
    }

    void add(const Record& record, const RunPattern::Place& place) {
        const std::string detector = place.detector.empty() ? record.detector : place.detector;
        const Identity identity = record.identity.value_or(Identity());
        const DigestState digest =
            runs.settings.checksum == Checksum::none ? DigestState::unwanted : DigestState::pending;
        touch(place.run, record.arrival);
        if (runs.settings.isEndedByNext &&
            database.number("SELECT count(*) FROM run_parts WHERE run = ? AND detector = ?",
                            place.run, detector) == 0) {
            passOthers(detector, record.arrival);
        }
        // A new file of an old name is none more, and so is one of an index that is there.
        database.run(R"(
            INSERT INTO run_parts(run, detector, files, bytes, first, last, lowest, highest, indices)
            SELECT ?1, ?2, count(*) = 0, ?4 - coalesce(sum(size), 0), ?5, ?5, ?6, ?6,
                ?6 NOTNULL AND NOT EXISTS (SELECT number FROM run_files INDEXED BY run_files_by_number
                                           WHERE run = ?1 AND detector = ?2 AND number = ?6)
            FROM run_files WHERE run = ?1 AND path = ?3
            ON CONFLICT (run, detector) DO UPDATE SET
                files = files + excluded.files,
                bytes = bytes + excluded.bytes,
                last = excluded.last,
                indices = indices + excluded.indices,
                lowest = coalesce(min(lowest, excluded.lowest), lowest, excluded.lowest),
                highest = coalesce(max(highest, excluded.highest), highest, excluded.highest))",
                     place.run, detector, record.path, identity.size, record.arrival, place.index);
        database.run("INSERT OR REPLACE INTO run_files VALUES (?,?,?,?,?,?,?,?,?,'')", place.run,
                     record.path, record.sequence, detector, place.index, identity.size,
                     identity.mtime, static_cast<std::int64_t>(identity.inode),
                     static_cast<std::int64_t>(digest));
        if (database.run("UPDATE runs SET state = 1, ended_by = 'a late file', ended = 0, "
                         "reopened = reopened + 1 WHERE name = ? AND state = 2",
                         place.run) > 0) {
            tell(place.run, "reopened");
        }
    }

    /// The detector begins another run: its part of all that there are is over, and so are those
    /// of which all parts are.
    void passOthers(const std::string& detector, std::int64_t time) {
        database.run("UPDATE run_parts SET passed = 1 WHERE detector = ? AND passed = 0", detector);
        database.run("UPDATE runs SET state = 1, ended_by = 'the next run', touched = ? "
                     "WHERE state = 0 AND (SELECT min(passed) FROM run_parts WHERE run = name) = 1",
                     time);
    }

    void announceEnd(const std::string& name, const std::string& by) {
        database.run("UPDATE runs SET state = 1, ended_by = ? WHERE name = ? AND state = 0", by,
                     name);
    }

    /// Writes a record of what has become of the run.
    void tell(const std::string& name, const std::string& event) {
        const Run run = *find(name);
        Json object = {{"event", event}};
        object.update(describe(run, spansInRecord));
        Record record;
        record.kind = Kind::run;
        record.path = std::string(runLinePrefix) + jsonText(object);
        record.detector = run.parts.size() == 1 ? run.parts.front().detector : "";
        record.arrival = now();
        told.push_back(std::move(record));
    }

    const Runs& runs;
};

Runs::Runs(const RunSettings& itsSettings, RecordLog& inLog)
    : settings(itsSettings), log(inLog), pattern(settings.pattern), sentinel(settings.sentinel) {
    const std::int64_t newest = log.figures().last;
    change([&](Batch& batch) {
        batch.database.run("INSERT OR IGNORE INTO runs_position VALUES (1, ?)", newest);
        counted = batch.database.number("SELECT seq FROM runs_position");
    });
}

void Runs::change(const std::function<void(Batch&)>& work) {
    log.change([&](SQLite::Database& database) {
        Batch batch(database, *this);
        work(batch);
        return std::move(batch.told);
    });
}

template<class Work>
auto Runs::ask(Work work) {
    decltype(work(std::declval<Batch&>())) answer{};
    change([&](Batch& batch) { answer = work(batch); });
    return answer;
}

void Runs::follow(std::int64_t time) {
    const std::lock_guard<std::mutex> guard(following);
    Filter onlyFiles;
    onlyFiles.kinds = {Kind::file};
    for (;;) {
        const Page page = log.read(counted, onlyFiles, countedAtOnce);
        if (page.seenTo == counted) {
            break;
        }
        change([&](Batch& batch) {
            if (!page.records.empty()) {
                // As if all had been counted when it came.
                batch.endOverdue(page.records.front().arrival);
                for (const Record& each : page.records) {
                    batch.count(each);
                }
                batch.endComplete(page.records.back().arrival);
            }
            batch.database.run("INSERT OR REPLACE INTO runs_position VALUES (1, ?)", page.seenTo);
        });
        counted = page.seenTo;
    }
    while (ask([&](Batch& batch) { return batch.endOverdue(time); }) == endedAtOnce) {
    }
}

std::optional<Run> Runs::end(const std::string& name, std::optional<std::int64_t> expected) {
    const std::int64_t time = now();
    follow(0); // no other end comes before this one
    const std::lock_guard<std::mutex> guard(following);
    return ask([&](Batch& batch) {
        if (expected) {
            batch.database.run("INSERT OR IGNORE INTO runs(name, touched) VALUES (?, ?)", name,
                               time);
        }
        std::optional<Run> run = batch.find(name);
        if (run && (run->state != RunState::ended || (expected && run->expected != expected))) {
            batch.database.run("UPDATE runs SET ended_by = 'a command', "
                               "expected = coalesce(?, expected) WHERE name = ?",
                               expected, name);
            batch.end(name, time);
            run = batch.find(name);
        }
        return run;
    });
}

std::optional<Run> Runs::find(const std::string& name) {
    return ask([&](Batch& batch) { return batch.find(name); });
}

std::optional<Run> Runs::await(const std::string& name, std::optional<std::int64_t> expected,
                               std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        std::optional<Run> run = find(name);
        if (run && expected) {
            run->expected = expected;
        }
        const bool isDone = run && (run->state == RunState::ended ||
                                    (expected && judge(*run, settings).isComplete == true));
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        if (isDone || left.count() <= 0 || !log.waitBehind(INT64_MAX, std::min(left, pause))) {
            return run;
        }
    }
}

std::vector<Run> Runs::latest(std::int64_t limit) {
    return ask([&](Batch& batch) {
        std::vector<Run> found;
        for (const std::string& name :
             batch.database.texts("SELECT name FROM runs ORDER BY touched DESC LIMIT ?", limit)) {
            found.push_back(*batch.find(name));
        }
        return found;
    });
}

Json Runs::describe(const Run& run, std::size_t spans) {
    return ask([&](Batch& batch) { return batch.describe(run, spans); });
}

std::vector<RunFile> Runs::files(const Run& run, const std::string& behind, std::int64_t limit) {
    return ask([&](Batch& batch) {
        return filesIn(batch.database.begin(
            "SELECT * FROM run_files WHERE run = ? AND path > ? ORDER BY path LIMIT ?", run.name,
            behind, limit));
    });
}

std::int64_t Runs::pendingDigests(const Run& run) {
    return ask([&](Batch& batch) {
        return batch.database.number(
            "SELECT count(*) FROM run_files WHERE run = ? AND digest_state = 1", run.name);
    });
}

std::vector<RunFile> Runs::undigested(std::int64_t after, std::int64_t limit) {
    return ask([&](Batch& batch) {
        return filesIn(batch.database.begin(
            "SELECT * FROM run_files WHERE digest_state = 1 AND seq > ? ORDER BY seq LIMIT ?",
            after, limit));
    });
}

void Runs::setDigests(const std::vector<RunFile>& digested) {
    change([&](Batch& batch) {
        for (const RunFile& each : digested) {
            // Not of a new file of the name that has come meanwhile.
            batch.database.run("UPDATE run_files SET digest_state = ?, digest = ? "
                               "WHERE digest_state = 1 AND seq = ?",
                               static_cast<std::int64_t>(each.digestState), each.digest,
                               each.sequence);
        }
    });
}

void Runs::removeOld(std::int64_t before) {
    change([&](Batch& batch) {
        Statements& database = batch.database;
        for (const std::string& name : database.texts(
                 "SELECT name FROM runs WHERE touched < ? AND state = 2 LIMIT 1", before)) {
            const std::int64_t removed =
                database.run("DELETE FROM run_files WHERE run = ?1 AND path IN "
                             "(SELECT path FROM run_files WHERE run = ?1 LIMIT ?2)",
                             name, removedAtOnce);
            if (removed < removedAtOnce) {
                database.run("DELETE FROM run_parts WHERE run = ?", name);
                database.run("DELETE FROM runs WHERE name = ?", name);
            }
        }
    });
}

} // namespace relay
