// Runs: all of them, in tables of the log's database.
#include "relay/runs.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

namespace relay {

namespace {

constexpr std::size_t countedAtOnce = 200; // the intake waits for as long
constexpr std::size_t spansInRecord = 100;
constexpr std::int64_t endedAtOnce = 200;
constexpr std::int64_t removedAtOnce = 2000; // files

constexpr std::int64_t none = -1; // in the database: there is no such number

std::vector<std::string> texts(SQLite::Statement& rows) {
    std::vector<std::string> found;
    while (rows.executeStep()) {
        found.push_back(rows.getColumn(0).getString());
    }
    return found;
}

/// A row's columns one after the other.
class Columns {
public:
    explicit Columns(SQLite::Statement& ofRow) : row(ofRow) {}
    std::int64_t number() { return row.getColumn(next++).getInt64(); }
    std::string text() { return row.getColumn(next++).getString(); }
    std::optional<std::int64_t> optional() {
        const std::int64_t value = number();
        return value == none ? std::nullopt : std::optional(value);
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
        file.run = column.number();
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

std::optional<Run> loadRun(Statements& database, const std::string& name) {
    SQLite::Statement& row = database.begin("SELECT * FROM runs WHERE name = ?", name);
    if (!row.executeStep()) {
        return std::nullopt;
    }
    Columns column(row);
    Run run;
    run.id = column.number();
    run.name = column.text();
    run.state = column.choice(RunState::ended);
    run.by = column.text();
    run.expected = column.optional();
    run.files = column.number();
    run.bytes = column.number();
    run.first = column.number();
    run.last = column.number();
    run.touched = column.number();
    run.ended = column.number();
    run.reopened = column.number();
    SQLite::Statement& parts =
        database.begin("SELECT detector, indices, lowest, highest, passed FROM run_parts "
                       "WHERE run = ? ORDER BY detector",
                       run.id);
    while (parts.executeStep()) {
        Columns part(parts);
        run.parts.push_back(
            {part.text(), part.number(), part.number(), part.number(), part.number() != 0});
    }
    return run;
}

/// Those of one detector, `limit` at most.
void addMissing(SQLite::Statement& indices, const IndexSpan& wanted, std::size_t limit,
                std::vector<IndexSpan>& spans) {
    std::int64_t next = wanted.first;
    while (spans.size() < limit && indices.executeStep()) {
        const std::int64_t index = indices.getColumn(0).getInt64();
        if (index > next) {
            spans.push_back({wanted.detector, next, index - 1});
        }
        next = index + 1;
    }
    if (spans.size() < limit && next <= wanted.last) {
        spans.push_back({wanted.detector, next, wanted.last});
    }
}

std::vector<IndexSpan> spansMissing(Statements& database, const Run& run,
                                    const RunSettings& settings, std::size_t limit) {
    std::vector<IndexSpan> spans;
    for (const RunPart& part : run.parts) {
        const IndexSpan wanted = wantedIndices(run, part, settings);
        if (part.indices > 0 && wanted.last - wanted.first + 1 > part.indices) {
            addMissing(database.begin("SELECT number FROM run_files WHERE run = ? AND "
                                      "detector = ? AND number >= 0 ORDER BY number",
                                      run.id, part.detector),
                       wanted, limit, spans);
        }
    }
    return spans;
}

} // namespace

/// The changes of one transaction.
class Runs::Batch {
public:
    Batch(Statements& inDatabase, const Runs& ofRuns) : database(inDatabase), runs(ofRuns) {}

    Statements& database;
    std::vector<Record> told; // what goes into the log with the changes

    /// The run as this transaction has it. Nothing if there is none.
    Run* find(const std::string& name) {
        const auto known = loaded.find(name);
        if (known != loaded.end()) {
            return &known->second;
        }
        const std::optional<Run> run = loadRun(database, name);
        return run ? &(loaded[name] = *run) : nullptr;
    }

    Run& findOrBegin(const std::string& name, std::int64_t time) {
        if (Run* const known = find(name)) {
            return *known;
        }
        Run run;
        run.name = name;
        run.touched = time;
        write(run);
        return loaded[name] = run;
    }

    void count(const Record& record) {
        if (const auto place = runs.pattern.find(record.path)) {
            add(record, *place);
        }
        if (const auto place = runs.sentinel.find(record.path)) {
            announceEnd(findOrBegin(place->run, record.arrival), "a sentinel file", record.arrival);
        }
    }

    void end(Run& run, const std::string& by, std::int64_t time) {
        run.state = RunState::ended;
        run.by = by;
        run.ended = time;
        tell(run, "ended");
    }

    void endOverdue(std::int64_t time) {
        writeAll();
        const auto names =
            texts(database.begin("SELECT name FROM runs WHERE deadline <= ? ORDER BY deadline "
                                 "LIMIT ?",
                                 time, endedAtOnce));
        for (const std::string& name : names) {
            Run& run = *find(name);
            end(run, run.state == RunState::open ? "quiet" : run.by, time);
        }
    }

    void writeAll() {
        for (auto& [name, run] : loaded) {
            write(run);
        }
    }

private:
    void add(const Record& record, const RunPattern::Place& place) {
        Run& run = findOrBegin(place.run, record.arrival);
        const std::string detector = place.detector.empty() ? record.detector : place.detector;
        const std::int64_t size = record.identity ? record.identity->size : 0;
        const auto old = sizeOf(run, record.path);
        const bool isNewIndex = place.index && !hasIndex(run, detector, *place.index);
        writeFile({run.id, record.sequence, record.path, detector, place.index, record.identity,
                   runs.settings.checksum == Checksum::none ? DigestState::unwanted
                                                            : DigestState::pending,
                   ""});
        run.files += old ? 0 : 1;
        run.bytes += size - old.value_or(0);
        run.first = run.first == 0 ? record.arrival : run.first;
        run.last = run.touched = record.arrival;
        auto part = std::find_if(run.parts.begin(), run.parts.end(),
                                 [&](const RunPart& each) { return each.detector == detector; });
        const bool isFirst = part == run.parts.end();
        if (isFirst) {
            part = run.parts.insert(part, {detector, 0, 0, 0, false});
        }
        if (isNewIndex) {
            part->lowest = part->indices == 0 ? *place.index : std::min(part->lowest, *place.index);
            part->highest = std::max(part->highest, *place.index);
            ++part->indices;
        }
        if (run.state == RunState::ended) {
            run.state = RunState::ending;
            run.by = "a late file";
            run.ended = 0;
            ++run.reopened;
            tell(run, "reopened");
        }
        if (isFirst && runs.settings.isEndedByNext) {
            passOthers(run.name, detector, record.arrival);
        }
        if (run.state == RunState::ending && run.expected &&
            judge(run, runs.settings).isComplete == true) {
            end(run, run.by, record.arrival); // nothing is left to be waited for
        }
    }

    /// The detector has begun this run: its part of all others is over.
    void passOthers(const std::string& begun, const std::string& detector, std::int64_t time) {
        writeAll();
        const auto names = texts(database.begin(
            "SELECT name FROM run_parts JOIN runs ON id = run WHERE detector = ? AND "
            "passed = 0 AND name <> ?",
            detector, begun));
        for (const std::string& name : names) {
            Run& other = *find(name);
            bool areAllPassed = true;
            for (RunPart& each : other.parts) {
                each.isPassed = each.isPassed || each.detector == detector;
                areAllPassed = areAllPassed && each.isPassed;
            }
            if (areAllPassed) {
                announceEnd(other, "the next run", time);
            }
        }
    }

    void announceEnd(Run& run, const std::string& by, std::int64_t time) {
        if (run.state == RunState::open) {
            run.state = RunState::ending;
            run.by = by;
            run.touched = std::max(run.touched, time);
        }
    }

    /// Writes a record of what has become of the run.
    void tell(const Run& run, const std::string& event) {
        Json object = {{"event", event}};
        object.update(jsonOf(run, judge(run, runs.settings),
                             spansMissing(database, run, runs.settings, spansInRecord)));
        Record record;
        record.kind = Kind::run;
        record.path = std::string(runLinePrefix) + jsonText(object);
        record.detector = run.parts.size() == 1 ? run.parts.front().detector : "";
        record.arrival = now();
        told.push_back(std::move(record));
    }

    void write(Run& run) {
        if (run.id == 0) {
            run.id = database.number("SELECT max(id) FROM runs") + 1;
        }
        database.run("INSERT OR REPLACE INTO runs VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?)", run.id,
                     run.name, static_cast<std::int64_t>(run.state), run.by,
                     run.expected.value_or(none), run.files, run.bytes, run.first, run.last,
                     run.touched, run.ended, run.reopened, deadline(run, runs.settings));
        for (const RunPart& each : run.parts) {
            database.run("INSERT OR REPLACE INTO run_parts VALUES (?,?,?,?,?,?)", run.id,
                         each.detector, each.indices, each.lowest, each.highest,
                         static_cast<std::int64_t>(each.isPassed));
        }
    }

    void writeFile(const RunFile& file) {
        const Identity identity = file.identity.value_or(Identity());
        database.run("INSERT OR REPLACE INTO run_files VALUES (?,?,?,?,?,?,?,?,?,'')", file.run,
                     file.path, file.sequence, file.detector, file.index.value_or(none),
                     identity.size, identity.mtime, static_cast<std::int64_t>(identity.inode),
                     static_cast<std::int64_t>(file.digestState));
    }

    std::optional<std::int64_t> sizeOf(const Run& run, const std::string& path) {
        SQLite::Statement& row =
            database.begin("SELECT size FROM run_files WHERE run = ? AND path = ?", run.id, path);
        return row.executeStep() ? std::optional(row.getColumn(0).getInt64()) : std::nullopt;
    }

    bool hasIndex(const Run& run, const std::string& detector, std::int64_t index) {
        return database.number("SELECT count(*) FROM run_files WHERE run = ? AND detector = ? AND "
                               "number = ? AND number >= 0",
                               run.id, detector, index) > 0;
    }

    const Runs& runs;
    std::map<std::string, Run> loaded;
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
        Statements statements(database);
        Batch batch(statements, *this);
        work(batch);
        batch.writeAll();
        return std::move(batch.told);
    });
    const std::lock_guard<std::mutex> guard(mutex);
    ++changes;
    changed.notify_all();
}

template<class Work>
auto Runs::ask(Work work) -> decltype(work(std::declval<Statements&>())) {
    decltype(work(std::declval<Statements&>())) answer{};
    log.change([&](SQLite::Database& database) {
        Statements statements(database);
        answer = work(statements);
        return std::vector<Record>();
    });
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
            // As if all had been counted when it came.
            batch.endOverdue(page.records.empty() ? 0 : page.records.front().arrival);
            for (const Record& each : page.records) {
                batch.count(each);
            }
            batch.database.run("UPDATE runs_position SET seq = ?", page.seenTo);
        });
        counted = page.seenTo;
    }
    std::int64_t overdue = 0;
    do {
        overdue = ask([&](Statements& database) {
            return database.number("SELECT count(*) FROM runs WHERE deadline <= ?", time);
        });
        if (overdue > 0) {
            change([&](Batch& batch) { batch.endOverdue(time); });
        }
    } while (overdue > endedAtOnce);
}

std::optional<Run> Runs::end(const std::string& name, std::optional<std::int64_t> expected) {
    const std::int64_t time = now();
    follow(0); // no other end comes before this one
    const std::lock_guard<std::mutex> guard(following);
    std::optional<Run> result;
    change([&](Batch& batch) {
        Run* run = batch.find(name);
        if (run == nullptr) {
            if (!expected) {
                return;
            }
            run = &batch.findOrBegin(name, time);
        }
        const bool isOtherNumber = expected && run->expected != expected;
        run->expected = expected ? expected : run->expected;
        if (run->state != RunState::ended || isOtherNumber) {
            batch.end(*run, "a command", time);
        }
        result = *run;
    });
    return result;
}

std::optional<Run> Runs::find(const std::string& name) {
    return ask([&](Statements& database) { return loadRun(database, name); });
}

std::optional<Run> Runs::await(const std::string& name, std::optional<std::int64_t> expected,
                               std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        std::unique_lock<std::mutex> guard(mutex);
        const std::int64_t before = changes;
        guard.unlock();
        std::optional<Run> run = find(name);
        if (run && expected) {
            run->expected = expected;
        }
        const bool isDone = run && (run->state == RunState::ended ||
                                    (expected && judge(*run, settings).isComplete == true));
        guard.lock();
        if (isDone || isInterrupted ||
            !changed.wait_until(guard, end, [&] { return changes != before || isInterrupted; })) {
            return run;
        }
    }
}

std::vector<Run> Runs::latest(std::int64_t limit) {
    const auto names = ask([&](Statements& database) {
        return texts(database.begin("SELECT name FROM runs ORDER BY touched DESC LIMIT ?", limit));
    });
    std::vector<Run> found;
    for (const std::string& name : names) {
        if (const auto run = find(name)) {
            found.push_back(*run);
        }
    }
    return found;
}

std::vector<IndexSpan> Runs::missing(const Run& run, std::size_t limit) {
    return ask([&](Statements& database) { return spansMissing(database, run, settings, limit); });
}

Json Runs::describe(const Run& run, std::size_t spans) {
    const Judgement judgement = judge(run, settings);
    return jsonOf(run, judgement,
                  judgement.missing > 0 ? missing(run, spans) : std::vector<IndexSpan>());
}

std::vector<RunFile> Runs::files(const Run& run, const std::string& behind, std::int64_t limit) {
    return ask([&](Statements& database) {
        return filesIn(database.begin("SELECT * FROM run_files WHERE run = ? AND path > ? "
                                      "ORDER BY path LIMIT ?",
                                      run.id, behind, limit));
    });
}

std::int64_t Runs::pendingDigests(const Run& run) {
    return ask([&](Statements& database) {
        return database.number("SELECT count(*) FROM run_files WHERE run = ? AND digest_state = 1",
                               run.id);
    });
}

std::vector<RunFile> Runs::undigested(std::int64_t after, std::int64_t limit) {
    return ask([&](Statements& database) {
        return filesIn(database.begin(
            "SELECT * FROM run_files WHERE digest_state = 1 AND seq > ? ORDER BY seq LIMIT ?",
            after, limit));
    });
}

void Runs::setDigests(const std::vector<RunFile>& digested) {
    change([&](Batch& batch) {
        for (const RunFile& each : digested) {
            // Not of a new file of the name that has come meanwhile.
            batch.database.run("UPDATE run_files SET digest_state = ?, digest = ? "
                               "WHERE run = ? AND path = ? AND seq = ?",
                               static_cast<std::int64_t>(each.digestState), each.digest, each.run,
                               each.path, each.sequence);
        }
    });
}

void Runs::removeOld(std::int64_t before) {
    change([&](Batch& batch) {
        Statements& database = batch.database;
        const std::int64_t id = database.number(
            "SELECT id FROM runs WHERE touched < ? AND state = 2 ORDER BY touched LIMIT 1", before);
        const std::int64_t removed =
            database.run("DELETE FROM run_files WHERE run = ? AND path IN (SELECT path FROM "
                         "run_files WHERE run = ? LIMIT ?)",
                         id, id, removedAtOnce);
        if (removed < removedAtOnce) {
            database.run("DELETE FROM run_parts WHERE run = ?", id);
            database.run("DELETE FROM runs WHERE id = ?", id);
        }
    });
}

void Runs::interrupt() {
    const std::lock_guard<std::mutex> guard(mutex);
    isInterrupted = true;
    changed.notify_all();
}

} // namespace relay
