// How fast lines go from the pipe into the durable log, beside a bare reader of the pipe and a bare
// insert of the same batches into a table of the same form. Prints one line of JSON.
//
//   intake_speed FOLDER LINES [FILES]
//
// The log is made in FOLDER, which must be empty. With FILES, so many of the lines name files that
// are there, the same ones in turn (each is then looked at, as in real use); else none is.
#include "relay/database.h"
#include "relay/intake.h"
#include "relay/record_log.h"
#include "relay/targets.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

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

double bareReader(const std::string& pipe, const std::vector<std::string>& lines,
                  std::size_t bytes) {
    const Descriptor in(::open(pipe.c_str(), O_RDWR));
    ::fcntl(in.get(), F_SETPIPE_SZ, 1024 * 1024);
    std::vector<char> buffer(1024UL * 1024);
    const auto begin = Clock::now();
    std::thread writer = startWriter(pipe, lines);
    for (std::size_t got = 0; got < bytes;) {
        got += static_cast<std::size_t>(::read(in.get(), buffer.data(), buffer.size()));
    }
    writer.join();
    return secondsSince(begin);
}

double intake(const std::string& folder, const std::string& pipe,
              const std::vector<std::string>& lines, std::size_t bytes, std::int64_t& batches) {
    relay::PipeSettings settings;
    settings.path = pipe;
    relay::RecordLog log(folder + "/log");
    const relay::Targets targets("/nonexistent");
    relay::Intake intake(settings, -1, log, targets);
    const auto begin = Clock::now();
    std::thread writer = startWriter(pipe, lines);
    for (std::size_t got = 0; got < bytes;) {
        got += intake.turn(1000);
    }
    const double seconds = secondsSince(begin);
    writer.join();
    batches = intake.figures().batches;
    return seconds;
}

/// The same records in as many transactions, into the same columns, and nothing else.
double bareInsert(const std::string& folder, const std::vector<std::string>& lines,
                  std::int64_t batches) {
    relay::Database database(folder + "/bare.db", relay::Database::Access::readWrite);
    database.execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
                     "CREATE TABLE records(seq INTEGER PRIMARY KEY, kind, path BLOB, detector,"
                     " size, mtime, inode, type, way, arrival, repeats);"
                     "CREATE UNIQUE INDEX records_by_file ON records(path, inode, mtime, size)");
    relay::Statement insert =
        database.prepare("INSERT INTO records VALUES (?,0,?,'1',1,1,1,1,1,1,0)");
    const auto begin = Clock::now();
    const std::size_t size = lines.size() / static_cast<std::size_t>(batches) + 1;
    for (std::size_t first = 0; first < lines.size(); first += size) {
        relay::Transaction transaction(database);
        for (std::size_t n = first; n < std::min(first + size, lines.size()); ++n) {
            insert.bind(1, static_cast<std::int64_t>(n + 1)).bindBytes(2, lines[n]).run();
        }
        transaction.commit();
    }
    return secondsSince(begin);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: intake_speed FOLDER LINES [FILES]\n");
        return 2;
    }
    const std::string folder = argv[1];
    const auto count = std::strtoul(argv[2], nullptr, 10);
    const auto files = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 0;
    std::vector<std::string> lines;
    std::size_t bytes = 0;
    ::mkdir((folder + "/target").c_str(), 0755);
    for (unsigned long n = 0; n < count; ++n) {
        char name[64];
        std::snprintf(name, sizeof name, "run7/frame_%08lu.cbf", files > 0 ? n % files : n);
        lines.push_back((files > 0 ? folder + "/target" : "/srv/images/1") + "/./" + name + "\n");
        bytes += lines.back().size();
    }
    ::mkdir((folder + "/target/run7").c_str(), 0755);
    for (unsigned long n = 0; n < files; ++n) {
        std::string path = lines[n];
        path.pop_back();
        const Descriptor made(::open(path.c_str(), O_CREAT | O_WRONLY, 0644));
    }
    const std::string pipe = folder + "/pipe";
    ::mkfifo(pipe.c_str(), 0600);
    const double reading = bareReader(pipe, lines, bytes);
    std::int64_t batches = 0;
    const double taking = intake(folder, pipe, lines, bytes, batches);
    const double inserting = bareInsert(folder, lines, batches);
    std::printf("{\"lines\":%lu,\"batches\":%ld,\"bare_reader\":%.3f,\"intake\":%.3f,"
                "\"bare_insert\":%.3f,\"ratio\":%.3f,\"records_per_second\":%.0f}\n",
                count, static_cast<long>(batches), reading, taking, inserting, inserting / taking,
                static_cast<double>(count) / taking);
    return 0;
}
