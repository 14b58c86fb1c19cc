// From the pipe into the log: copied, committed, and only then taken out.
#include "relay/intake.h"

#include "relay/file_look.h"
#include "relay/messages.h"
#include "shares/files.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace relay {

namespace {

constexpr std::size_t partSize = 256UL * 1024;    // bytes that one transaction brings in at most
constexpr std::size_t worthAThread = 64UL * 1024; // bytes
constexpr std::size_t longestLine = 65536;        // what is longer, and has no end yet, is cut here
// From the beginning of a small transaction to the next one. Each is a flush of the disk and some
// processor time: what comes by and by shares one, and what comes after a while is taken in at
// once.
constexpr auto betweenCommits = std::chrono::milliseconds(10);
constexpr int pauseForTheRest = 20;     // milliseconds until half a line is looked at again
constexpr int pauseAfterFailure = 1000; // milliseconds
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
    // An inode's number is used again soon; together with the time of its birth it is not, where
    // the file system knows that time.
    struct statx status {};
    ::statx(descriptor, "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &status);
    std::string boot = confirming::readTextFile("/proc/sys/kernel/random/boot_id").value_or("");
    boot.erase(std::remove(boot.begin(), boot.end(), '\n'), boot.end());
    const auto joined = [](std::int64_t one, std::int64_t other) {
        return std::to_string(one) + '.' + std::to_string(other) + ':';
    };
    return joined(status.stx_dev_major, status.stx_dev_minor) + std::to_string(status.stx_ino) +
           ':' + joined(status.stx_btime.tv_sec, status.stx_btime.tv_nsec) + boot;
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
    std::string copied;
    if (!open || open->pipe != identity || open->count == 0 ||
        !copy->take(pipe.get(), open->count, copied) || copied.size() != open->count ||
        digestOf(copied) != open->digest) {
        return;
    }
    // These bytes were logged and not taken out; or, hardly ever, they were, and the very same came
    // again since: then a new file of an old name would be among them, and is logged.
    std::vector<Record> records = described(copied).records;
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
    Part part = std::exchange(next, {});
    if (part.lines.empty()) {
        std::this_thread::sleep_until(nextCommit);
        part = described(firstLines(limit));
    }
    if (part.lines.empty()) {
        return 0;
    }
    if (part.lines.size() < worthAThread) {
        nextCommit = std::chrono::steady_clock::now() + betweenCommits;
    }
    std::future<Part> ahead = lookAhead(part.lines);
    batch = std::max(batch + 1, now());
    try {
        log.append(part.records, {part.lines.size(), part.digest, identity, batch});
    } catch (const std::runtime_error& error) {
        stall(error.what());
        rest(std::min(limit, pauseAfterFailure));
        return 0;
    }
    resume();
    if (afterCommit) {
        afterCommit();
    }
    const bool isInOrder = takeOut(part.lines);
    log.noteTakenOut(batch);
    count(part.records);
    if (isInOrder && ahead.valid()) {
        next = ahead.get();
    }
    return part.lines.size();
}

/// The whole lines at the beginning of the pipe, some of them; none if there are none yet.
std::string Intake::firstLines(int limit) {
    std::string lines;
    if (!isReady(pipe.get(), POLLIN, limit)) {
        return lines;
    }
    if (!copy->take(pipe.get(), partSize, lines)) {
        stall("cannot copy what is in the pipe: " + systemError(errno));
        rest(std::min(limit, pauseAfterFailure));
        return {};
    }
    std::size_t whole = lines.rfind('\n') + 1; // 0 if there is no line feed
    if (whole == 0 && (lines.size() >= longestLine || !isReady(pipe.get(), POLLOUT, 0))) {
        whole = std::min(lines.size(), longestLine); // its end can't come any more
    }
    if (whole == 0) {
        rest(std::min(limit, pauseForTheRest));
    }
    lines.resize(whole);
    return lines;
}

/// What is behind these lines in the pipe, if it is much: what comes by and by is better taken in
/// all at once.
std::future<Intake::Part> Intake::lookAhead(const std::string& lines) {
    std::string behind;
    if (!copy->take(pipe.get(), lines.size() + partSize, behind) ||
        behind.compare(0, lines.size(), lines) != 0) {
        return {};
    }
    behind.resize(behind.rfind('\n') + 1);
    behind.erase(0, lines.size());
    if (behind.size() < worthAThread) {
        return {};
    }
    return std::async(std::launch::async,
                      [this, behind = std::move(behind)] { return described(behind); });
}

void Intake::count(const std::vector<Record>& logged) {
    std::vector<std::string> odd;
    const std::lock_guard<std::mutex> guard(mutex);
    ++counts.batches;
    for (const Record& each : logged) {
        ++(each.sequence == 0 ? counts.repeats : counts.records);
        counts.bytes += each.sequence != 0 && each.identity ? each.identity->size : 0;
        if (each.kind == Kind::other) {
            odd.push_back(each.path);
        }
    }
    if (!odd.empty()) {
        warn("a line of the pipe is no record, or was cut off: " + shown(odd.front()));
    }
    if (odd.size() > 1) {
        warn(std::to_string(odd.size() - 1) + " more such lines came with it; the log has them");
    }
    counts.oddLines += static_cast<std::int64_t>(odd.size());
}

Intake::Part Intake::described(std::string lines) const {
    Part part;
    part.lines = std::move(lines);
    part.digest = digestOf(part.lines);
    FileLook files; // of about this moment
    const auto add = [&part](std::string_view line) -> Record& {
        Record& record = part.records.emplace_back();
        record.kind = Kind::other;
        record.path = line;
        record.arrival = now();
        return record;
    };
    std::string_view rest = part.lines;
    part.records.reserve(static_cast<std::size_t>(std::count(rest.begin(), rest.end(), '\n')) + 1);
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        // Who dies while he writes a long line leaves its beginning, and the next line follows it.
        // No name has a configured target in it, since each of these has "/./".
        if (const std::size_t second = targets.secondBeginning(line);
            second != std::string_view::npos) {
            add(line.substr(0, second));
            line.remove_prefix(second);
        }
        Record& record = add(line);
        record.kind = kindOfLine(line);
        if (record.kind == Kind::file) {
            Located place = targets.locate(line);
            files.at(place, record);
            record.detector = std::move(place.detector);
        }
    }
    return part;
}

/// False if another program has taken something out, too.
bool Intake::takeOut(const std::string& logged) {
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
        return true;
    }
    warn("another program reads the pipe, too: end it, it takes records away");
    taken.resize(got);
    if (logged.compare(0, got, taken) == 0) {
        return false; // the other one took only what is in the log
    }
    std::vector<Record> records = described(taken).records;
    batch = std::max(batch + 1, now());
    try {
        log.append(records, {0, 0, identity, batch});
    } catch (const std::runtime_error& error) {
        warn("these were taken out and could not be logged (" + std::string(error.what()) +
             "): " + shown(taken));
    }
    return false;
}

IntakeFigures Intake::figures() const {
    const std::lock_guard<std::mutex> guard(mutex);
    IntakeFigures figures = counts;
    figures.bytesWaiting = static_cast<std::int64_t>(bytesIn(pipe).value_or(0));
    return figures;
}

void Intake::stall(const std::string& why) {
    const std::int64_t time = now();
    const std::lock_guard<std::mutex> guard(mutex);
    if (counts.stalledSince == 0) {
        counts.stalledSince = time;
        ++counts.stalls;
    }
    if (counts.problem != why || time - lastTold >= tellAgainAfter) {
        warn("nothing is taken out of the pipe, and copying will wait: " + why);
        lastTold = time;
    }
    counts.problem = why;
}

void Intake::resume() {
    const std::lock_guard<std::mutex> guard(mutex);
    if (counts.stalledSince != 0) {
        counts.stalledSince = 0;
        counts.problem.clear();
        inform("records are taken out of the pipe again");
    }
}

} // namespace relay
