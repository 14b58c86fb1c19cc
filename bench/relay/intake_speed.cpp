// How fast lines go from the pipe into the durable log, beside a bare reader of the pipe and a bare
// insert of the same batches into a table of the same form. Prints one line of JSON.
//
//   intake_speed FOLDER LINES TARGET
//
// The log is made in FOLDER and the files in TARGET, which must be empty; TARGET is best in memory.
// Processor times are of the thread that takes in or inserts; a busy machine distorts the others.
#include "relay/intake.h"
#include "relay/record_log.h"
#include "relay/targets.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

/// How long something took, and how much of the processor this thread had for it.
struct Span {
    double seconds = 0;
    double processor = 0;
};

double processorTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

class Stopwatch {
public:
    Span read() const {
        return {std::chrono::duration<double>(Clock::now() - begin).count(),
                processorTime() - processorBegin};
    }

private:
    Clock::time_point begin = Clock::now();
    double processorBegin = processorTime();
};

/// Writes all lines into the pipe as the daemon does, each with one call.
std::thread startWriter(const std::string& pipe, const std::vector<std::string>& lines) {
    return std::thread([pipe, &lines] {
        const Descriptor out(::open(pipe.c_str(), O_WRONLY));
        for (const std::string& each : lines) {
            if (::write(out.get(), each.data(), each.size()) < 0) {
                std::perror("write");
                std::exit(1);
            }
        }
    });
}

Span bareReader(const std::string& pipe, const std::vector<std::string>& lines, std::size_t bytes) {
    const Descriptor in(::open(pipe.c_str(), O_RDWR));
    ::fcntl(in.get(), F_SETPIPE_SZ, 1024 * 1024);
    std::vector<char> buffer(1024UL * 1024);
    const Stopwatch watch;
    std::thread writer = startWriter(pipe, lines);
    for (std::size_t got = 0; got < bytes;) {
        got += static_cast<std::size_t>(::read(in.get(), buffer.data(), buffer.size()));
    }
    writer.join();
    return watch.read();
}

Span intake(const std::string& folder, const std::string& pipe,
            const std::vector<std::string>& lines, std::size_t bytes, std::int64_t& batches) {
    relay::PipeSettings settings;
    settings.path = pipe;
    relay::RecordLog log(folder + "/log");
    const relay::Targets targets(folder + "/conf");
    relay::Intake intake(settings, -1, log, targets);
    const Stopwatch watch;
    std::thread writer = startWriter(pipe, lines);
    for (std::size_t got = 0; got < bytes;) {
        got += intake.turn(1000);
    }
    const Span seconds = watch.read();
    writer.join();
    batches = intake.figures().batches;
    return seconds;
}

/// What the log holds now.
std::vector<relay::Record> logged(const std::string& folder) {
    relay::RecordLog log(folder + "/log");
    std::vector<relay::Record> records;
    for (std::int64_t after = 0;;) {
        relay::Page page = log.read(after, {}, SIZE_MAX);
        if (page.seenTo == after) {
            return records;
        }
        after = page.seenTo;
        std::move(page.records.begin(), page.records.end(), std::back_inserter(records));
    }
}

/// The same records in as many transactions, into the same columns, and nothing else.
Span bareInsert(const std::string& folder, const std::vector<relay::Record>& records,
                std::int64_t batches) {
    SQLite::Database database(folder + "/bare.db", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    database.exec("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
                  "CREATE TABLE records(seq INTEGER PRIMARY KEY, kind, path BLOB, detector,"
                  " size, mtime, inode, type, way, arrival, repeats);"
                  "CREATE UNIQUE INDEX records_by_file ON records(path, inode, mtime, size)");
    SQLite::Statement insert(database, "INSERT INTO records VALUES (?,?,?,?,?,?,?,?,?,?,0)");
    const Stopwatch watch;
    const std::size_t size = records.size() / static_cast<std::size_t>(batches) + 1;
    for (std::size_t first = 0; first < records.size(); first += size) {
        SQLite::Transaction transaction(database);
        for (std::size_t n = first; n < std::min(first + size, records.size()); ++n) {
            const relay::Record& each = records[n];
            insert.bind(1, each.sequence);
            insert.bind(2, static_cast<int>(each.kind));
            insert.bindNoCopy(3, each.path.data(), static_cast<int>(each.path.size()));
            insert.bindNoCopy(4, each.detector);
            insert.bind(5, each.identity->size);
            insert.bind(6, each.identity->mtime);
            insert.bind(7, static_cast<std::int64_t>(each.identity->inode));
            insert.bind(8, static_cast<int>(each.type));
            insert.bind(9, static_cast<int>(each.way));
            insert.bind(10, each.arrival);
            insert.exec();
            insert.reset();
        }
        transaction.commit();
    }
    return watch.read();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: intake_speed FOLDER LINES TARGET\n");
        return 2;
    }
    const std::string folder = argv[1];
    const auto count = std::strtoul(argv[2], nullptr, 10);
    const std::string target = argv[3];
    ::mkdir((target + "/run7").c_str(), 0755);
    std::vector<std::string> lines;
    std::size_t bytes = 0;
    for (unsigned long n = 0; n < count; ++n) {
        char name[64];
        std::snprintf(name, sizeof name, "/./run7/frame_%08lu.cbf", n);
        const Descriptor made(::open((target + name).c_str(), O_CREAT | O_WRONLY, 0644));
        lines.push_back(target + name + "\n");
        bytes += lines.back().size();
    }
    std::ofstream(folder + "/conf")
        << "detectorID 1\nremoteIP 127.0.0.1\nsource /\ntarget " << target << "\n";
    const std::string pipe = folder + "/pipe";
    ::mkfifo(pipe.c_str(), 0600);
    const Span reading = bareReader(pipe, lines, bytes);
    std::int64_t batches = 0;
    const Span taking = intake(folder, pipe, lines, bytes, batches);
    const Span inserting = bareInsert(folder, logged(folder), batches);
    std::printf("{\"lines\":%lu,\"batches\":%ld,\"bare_reader\":%.3f,\"intake\":%.3f,"
                "\"bare_insert\":%.3f,\"intake_processor\":%.3f,\"bare_insert_processor\":%.3f,"
                "\"records_per_second\":%.0f,\"ratio\":%.3f,\"processor_ratio\":%.3f}\n",
                count, static_cast<long>(batches), reading.seconds, taking.seconds,
                inserting.seconds, taking.processor, inserting.processor,
                static_cast<double>(count) / taking.seconds, inserting.seconds / taking.seconds,
                inserting.processor / taking.processor);
    return 0;
}
