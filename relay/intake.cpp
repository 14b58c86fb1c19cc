// From the pipe into the log: copied, committed, and only then taken out.
#include "relay/intake.h"

#include "relay/messages.h"
#include "shares/files.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace relay {

namespace {

constexpr std::size_t longestLine = 65536; // what is longer, and has no end yet, is cut here
constexpr int pauseForTheRest = 20;        // milliseconds until half a line is looked at again
constexpr int pauseAfterFailure = 1000;    // milliseconds
constexpr std::int64_t tellAgainAfter = 60LL * 1000000000;

bool isReady(int descriptor, short events, int limit) {
    pollfd polled{descriptor, events, 0};
    return ::poll(&polled, 1, limit) > 0 && (polled.revents & events) != 0;
}

void rest(int milliseconds) {
    ::poll(nullptr, 0, milliseconds);
}

} // namespace

std::string pipeIdentity(int descriptor) {
    struct stat status {};
    ::fstat(descriptor, &status);
    std::string boot = confirming::readTextFile("/proc/sys/kernel/random/boot_id").value_or("");
    boot.erase(std::remove(boot.begin(), boot.end(), '\n'), boot.end());
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) + ":" + boot;
}

std::uint64_t digestOf(std::string_view bytes) {
    // FNV-1a
    std::uint64_t digest = 14695981039346656037U;
    for (const char each : bytes) {
        digest = (digest ^ static_cast<unsigned char>(each)) * 1099511628211U;
    }
    return digest;
}

Intake::Intake(const PipeSettings& settings, int passed, RecordLog& intoLog,
               const Targets& byTargets)
    : log(intoLog), targets(byTargets) {
    pipe = passed >= 0 ? Descriptor(passed) : openPipe(settings.path, settings.mode);
    struct stat status {};
    if (::fstat(pipe.get(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
        throw std::runtime_error("the descriptor that was passed is no pipe");
    }
    ::fcntl(pipe.get(), F_SETFL, O_NONBLOCK);
    // A smaller one, if the system allows no more, holds less while nothing can be logged.
    ::fcntl(pipe.get(), F_SETPIPE_SZ, settings.size);
    identity = pipeIdentity(pipe.get());
    copy.emplace(pipe.get());
    batch = log.lastBatch();
    takeOutWhatIsLogged();
}

void Intake::takeOutWhatIsLogged() {
    const std::optional<TakeOut> open = log.openTakeOut();
    if (!open || open->pipe != identity || open->count == 0 ||
        !copy->take(pipe.get(), open->count, copied) || copied.size() != open->count ||
        digestOf(copied) != open->digest) {
        return;
    }
    // These bytes were logged and not taken out; or, hardly ever, they were, and the very same came
    // again since: then a new file of an old name would be among them, and is logged.
    files = FileLook();
    std::vector<Record> records = recordsIn(copied);
    records.erase(std::remove_if(records.begin(), records.end(),
                                 [this](const Record& each) {
                                     return each.kind != Kind::file || log.knows(each);
                                 }),
                  records.end());
    if (!records.empty()) {
        log.append(records, *open);
    }
    takeOut(copied);
    log.noteTakenOut(open->batch);
    inform(std::to_string(open->count) + " bytes that were logged before the last end are taken " +
           "out of the pipe");
}

std::size_t Intake::turn(int limit) {
    if (!isReady(pipe.get(), POLLIN, limit)) {
        return 0;
    }
    if (!copy->take(pipe.get(), SIZE_MAX / 2, copied)) {
        stall("cannot copy what is in the pipe: " + systemError(errno));
        rest(std::min(limit, pauseAfterFailure));
        return 0;
    }
    std::size_t whole = copied.rfind('\n') + 1; // 0 if there is no line feed
    if (whole == 0 && (copied.size() >= longestLine || !isReady(pipe.get(), POLLOUT, 0))) {
        whole = std::min(copied.size(), longestLine); // its end can't come any more
    }
    if (whole == 0) {
        rest(std::min(limit, pauseForTheRest));
        return 0;
    }
    const std::string_view lines = std::string_view(copied).substr(0, whole);
    files = FileLook();
    std::vector<Record> records = recordsIn(lines);
    batch = std::max(batch + 1, now());
    try {
        log.append(records, {whole, digestOf(lines), identity, batch});
    } catch (const std::runtime_error& error) {
        stall(error.what());
        rest(std::min(limit, pauseAfterFailure));
        return 0;
    }
    resume();
    if (afterCommit) {
        afterCommit();
    }
    takeOut(lines);
    log.noteTakenOut(batch);
    count(records);
    return whole;
}

void Intake::count(const std::vector<Record>& logged) {
    std::int64_t odd = 0;
    ++counts.batches;
    for (const Record& each : logged) {
        ++(each.sequence == 0 ? counts.repeats : counts.records);
        if (each.kind == Kind::other && odd++ == 0) {
            warn("a line of the pipe is no record, or was cut off: " + shown(each.path));
        }
    }
    if (odd > 1) {
        warn(std::to_string(odd - 1) + " more such lines came with it; the log has them");
    }
    counts.oddLines += odd;
}

std::vector<Record> Intake::recordsIn(std::string_view lines) {
    std::vector<Record> records;
    records.reserve(static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n')) + 1);
    while (!lines.empty()) {
        const std::size_t end = lines.find('\n');
        addLine(lines.substr(0, end), records);
        lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
    }
    return records;
}

void Intake::addLine(std::string_view line, std::vector<Record>& records) {
    // Who dies while he writes a long line leaves its beginning, and the next line follows it. No
    // name has a configured target in it, since each of these has "/./".
    const std::size_t second = targets.secondBeginning(line);
    if (second != std::string_view::npos) {
        Record cutOff;
        cutOff.kind = Kind::other;
        cutOff.path = line.substr(0, second);
        cutOff.arrival = now();
        records.push_back(std::move(cutOff));
        line.remove_prefix(second);
    }
    records.push_back(describe(line));
}

Record Intake::describe(std::string_view line) {
    Record record;
    record.kind = kindOfLine(line);
    record.path = line;
    record.arrival = now();
    if (record.kind == Kind::file) {
        Located place = targets.locate(line);
        files.at(place, record);
        record.detector = std::move(place.detector);
    }
    return record;
}

void Intake::takeOut(std::string_view logged) {
    std::string taken(logged.size(), '\0');
    std::size_t got = 0;
    while (got < taken.size()) {
        const ssize_t part =
            TEMP_FAILURE_RETRY(::read(pipe.get(), taken.data() + got, taken.size() - got));
        if (part <= 0) {
            break;
        }
        got += static_cast<std::size_t>(part);
    }
    if (got == taken.size() && taken == logged) {
        return;
    }
    warn("another program reads the pipe, too: end it, it takes records away");
    taken.resize(got);
    if (logged.substr(0, got) == taken) {
        return; // the other one took only what is in the log
    }
    std::vector<Record> records = recordsIn(taken);
    batch = std::max(batch + 1, now());
    try {
        log.append(records, {0, 0, identity, batch});
    } catch (const std::runtime_error& error) {
        warn("these were taken out and could not be logged (" + std::string(error.what()) +
             "): " + shown(taken));
    }
}

std::int64_t Intake::bytesWaiting() const {
    return static_cast<std::int64_t>(bytesIn(pipe));
}

std::string Intake::problem() const {
    const std::lock_guard<std::mutex> guard(mutex);
    return trouble;
}

void Intake::stall(const std::string& why) {
    const std::int64_t time = now();
    const std::int64_t since = counts.stalledSince;
    if (since == 0) {
        counts.stalledSince = time;
        ++counts.stalls;
    }
    const std::lock_guard<std::mutex> guard(mutex);
    if (trouble != why || time - lastTold >= tellAgainAfter) {
        warn("nothing is taken out of the pipe, and copying will wait: " + why);
        lastTold = time;
    }
    trouble = why;
}

void Intake::resume() {
    if (counts.stalledSince == 0) {
        return;
    }
    counts.stalledSince = 0;
    const std::lock_guard<std::mutex> guard(mutex);
    trouble.clear();
    inform("records are taken out of the pipe again");
}

} // namespace relay
