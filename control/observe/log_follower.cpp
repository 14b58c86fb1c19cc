// Reads the daemon's log as it grows, through its rotations.
#include "control/observe/log_follower.h"

#include "daemon/global.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace control {

namespace {

constexpr std::size_t pieceSize = 65536;

/// How far back the banner is searched for, and in pieces of which size.
constexpr std::uint64_t longestSearch = 256ULL * 1024 * 1024;
constexpr std::uint64_t searchPiece = 1024UL * 1024;

/// Of a line that has no end yet, this much of its beginning and of its end is kept.
constexpr std::size_t longestUnfinished = 65536;
constexpr std::size_t keptHead = 1024;
constexpr std::size_t keptTail = 32768;

/// So many bytes tell whether a file is still the one that was read.
constexpr std::uint64_t tailSize = 64;

/// A rotation in progress leaves one archive missing, and whoever cleans up by hand may leave more.
constexpr int missingInARow = 8;

/// How often a step is tried again because a rotation was going on, each time after twice the
/// pause: a quarter of a second in all.
constexpr int patience = 8;

/// So long a file system may take for one piece.
constexpr std::chrono::seconds patienceForPiece(2);

/// More than any daemon can rotate through between two looks, or keep.
constexpr int mostSteps = 1000000;

std::string numbered(const std::string& path, int number) {
    return path + "." + std::to_string(number);
}

std::string textAt(const Descriptor& file, std::uint64_t position, std::uint64_t size) {
    std::string text(size, '\0');
    const ssize_t got = pread(file.get(), text.data(), text.size(), static_cast<off_t>(position));
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

std::uint64_t sizeOf(const Descriptor& file) {
    struct stat status = {};
    return fstat(file.get(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

void waitALittle(int attempt) {
    timespec pause = {0, 1000000L << attempt};
    nanosleep(&pause, nullptr);
}

/// How many rotated files there are.
int countArchives(const std::string& path, int highestArchive) {
    int count = 0;
    int missing = 0;
    for (int number = 0; number <= std::max(highestArchive, 0) && missing < missingInARow;
         ++number) {
        const bool isThere = fileIdOf(numbered(path, number)).has_value();
        count += isThere ? 1 : 0;
        missing = isThere ? 0 : missing + 1;
    }
    return count;
}

} // namespace

LogFollower::LogFollower(std::string logPath, int highestArchive, BannerTest test)
    : path(std::move(logPath)), highest(std::max(highestArchive, 0)), mayBeBanner(std::move(test)) {
}

std::string LogFollower::archive(int number) const {
    return numbered(path, number);
}

void LogFollower::poll(LogSink& sink) {
    if (file.get() >= 0 || begin()) {
        readAll(sink);
    }
    archiveCount = countArchives(path, highest);
    struct stat status = {};
    const bool isThere = stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    fileSize = isThere ? static_cast<std::uint64_t>(status.st_size) : 0;
}

/// Hands on what came, through as many rotations as there were.
void LogFollower::readAll(LogSink& sink) {
    heedRewriting(sink);
    int attempt = 0;
    for (int steps = 0; steps < mostSteps && attempt <= patience; ++steps) {
        readNew(sink);
        const Step step = advance(sink, attempt == patience);
        if (step == Step::caughtUp) {
            break;
        }
        if (step == Step::moved) {
            attempt = 0;
        } else {
            waitALittle(attempt);
            ++attempt;
        }
    }
    const std::uint64_t size = std::min(offset, tailSize);
    tail = textAt(file, offset - size, size);
}

/// Finds what is to be read first. False, and `trouble` says why, if there is nothing.
bool LogFollower::begin() {
    Descriptor log;
    FileId id;
    const bool isThere = openFile(path, log, id);
    if (!isThere && errno != ENOENT) {
        return false; // what stands beside a device or a pipe of that name is not the daemon's
    }
    const std::string whyNot = trouble;
    if (sawNothing) {
        return beginWithOldest(std::move(log), id);
    }
    std::uint64_t budget = longestSearch;
    for (int number = -1; number <= highest; ++number) {
        Descriptor older;
        FileId olderId = id;
        std::uint64_t position = 0;
        if (number >= 0 && !openFile(archive(number), older, olderId)) {
            if (number == 0) {
                continue; // a rotation may be going on
            }
            break;
        }
        Descriptor& searched = number >= 0 ? older : log;
        if (searchBanner(searched, position, budget)) {
            file = std::move(searched);
            current = olderId;
            offset = position;
            trouble.clear();
            return true;
        }
    }
    trouble = whyNot;
    if (!isThere) {
        sawNothing = !fileIdOf(archive(0));
        return false;
    }
    file = std::move(log);
    current = id;
    offset = sizeOf(file);
    return true;
}

/// Begins with all that there is: nothing was there at the first look.
bool LogFollower::beginWithOldest(Descriptor log, const FileId& id) {
    int oldest = -1;
    while (oldest < highest && fileIdOf(archive(oldest + 1))) {
        ++oldest;
    }
    file = std::move(log);
    current = id;
    if (oldest >= 0) {
        openFile(archive(oldest), file, current);
    }
    return file.get() >= 0;
}

/// Searches a file backwards. `budget` is what may still be read.
bool LogFollower::searchBanner(const Descriptor& opened, std::uint64_t& position,
                               std::uint64_t& budget) {
    static const std::string mark = std::string(78, '+') + "\n\n++ " + GLOBAL::progName + " ";
    constexpr std::uint64_t overlap = 512; // a banner's first lines are shorter
    std::uint64_t end = opened.get() < 0 ? 0 : sizeOf(opened);
    while (end > 0 && budget > 0) {
        const std::uint64_t begin = end - std::min(end, searchPiece);
        const std::string text = textAt(opened, begin, end - begin + overlap);
        ++pieces;
        std::size_t found = text.rfind(mark, end - begin);
        while (found != std::string::npos) {
            const std::size_t date = text.find("\n++ on ", found + mark.size());
            const std::size_t dateEnd =
                text.find('\n', date == std::string::npos ? date : date + 1);
            const bool beginsLine = begin + found == 0 || (found > 0 && text[found - 1] == '\n');
            if (beginsLine && dateEnd != std::string::npos &&
                (!mayBeBanner ||
                 mayBeBanner(std::string_view(text).substr(date + 7, dateEnd - date - 7)))) {
                position = begin + found;
                return true;
            }
            found = found == 0 ? std::string::npos : text.rfind(mark, found - 1);
        }
        budget -= std::min(budget, end - begin);
        end = begin;
    }
    return false;
}

/// On failure `trouble` says why, and errno is ENOENT
/// exactly if there is none.
bool LogFollower::openFile(const std::string& name, Descriptor& opened, FileId& id) {
    OpenedFile found = openRegularFile(name);
    if (!found.descriptor) {
        trouble = found.error == ENOENT ? "there is no " + name
                                        : "cannot read " + name + ": " + found.problem;
        errno = found.error == 0 ? EINVAL : found.error;
        return false;
    }
    id = {found.status.st_dev, found.status.st_ino};
    opened = std::move(found.descriptor);
    trouble.clear();
    return true;
}

void LogFollower::readNew(LogSink& sink) {
    const std::uint64_t end = sizeOf(file);
    buffer.resize(pieceSize);
    while (offset < end) {
        const ssize_t got =
            pread(file.get(), buffer.data(), buffer.size(), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            trouble = got < 0 ? "cannot read " + path + ": " + std::strerror(errno) : trouble;
            return;
        }
        offset += static_cast<std::uint64_t>(got);
        ++pieces;
        takePiece({buffer.data(), static_cast<std::size_t>(got)}, sink);
    }
}

/// Hands on the lines that end in this piece.
void LogFollower::takePiece(std::string_view piece, LogSink& sink) {
    if (!unfinished.empty()) {
        const std::size_t end = piece.find('\n');
        const std::size_t size = end == std::string_view::npos ? piece.size() : end + 1;
        unfinished += piece.substr(0, size);
        piece.remove_prefix(size);
        if (end != std::string_view::npos) {
            sink.takeLines(unfinished);
            unfinished.clear();
        }
    }
    const std::size_t last = piece.rfind('\n');
    if (last != std::string_view::npos) {
        sink.takeLines(piece.substr(0, last + 1));
        piece.remove_prefix(last + 1);
    }
    unfinished += piece;
    if (unfinished.size() > longestUnfinished) {
        unfinished.erase(keptHead, unfinished.size() - keptHead - keptTail);
    }
}

/// An operator may have emptied the file, and the daemon may have filled it again since.
void LogFollower::heedRewriting(LogSink& sink) {
    if (sizeOf(file) >= offset &&
        textAt(file, offset - std::min<std::uint64_t>(offset, tail.size()), tail.size()) == tail) {
        return;
    }
    offset = 0;
    unfinished.clear();
    sink.takeGap();
}

/// The number of the archive that is this file; -1 if none is.
int LogFollower::numberOf(const FileId& id) const {
    int missing = 0;
    for (int number = 0; number <= highest && missing < missingInARow; ++number) {
        const std::optional<FileId> found = fileIdOf(archive(number));
        if (found == id) {
            return number;
        }
        missing = found ? 0 : missing + 1;
    }
    return -1;
}

/// Goes from the file that was read to the next newer one, if there is one.
LogFollower::Step LogFollower::advance(LogSink& sink, bool isLastTry) {
    if (fileIdOf(path) == current) {
        return Step::caughtUp;
    }
    const int number = numberOf(current);
    readNew(sink); // whatever was written before it was renamed is there by now
    Descriptor opened;
    FileId id;
    const bool isOpen = openFile(number <= 0 ? path : archive(number - 1), opened, id);
    // Only while it still has that number is the other file the one that came after it.
    if (number >= 0 && !(fileIdOf(archive(number)) == current) && !isLastTry) {
        return Step::again;
    }
    if (!isOpen) {
        if (number <= 0 || !openFile(path, opened, id)) {
            if (errno == ENOENT) {
                trouble.clear(); // nothing was written since
            }
            return Step::caughtUp;
        }
        if (!isLastTry) {
            return Step::again; // a rotation has moved `file` and is about to move the next one
        }
        sink.takeGap();
    }
    if (number < 0) {
        sink.takeGap(); // removed by hand, or rotated away faster than it was read
    }
    moveTo(std::move(opened), id, sink);
    return Step::moved;
}

void LogFollower::moveTo(Descriptor opened, const FileId& id, LogSink& sink) {
    if (!unfinished.empty()) {
        // Its end was never written.
        unfinished += '\n';
        sink.takeLines(unfinished);
        unfinished.clear();
    }
    file = std::move(opened);
    current = id;
    offset = 0;
    ++rotationCount;
}

LogAside::LogAside(const std::string& configured, int highestArchive, BannerTest test,
                   std::shared_ptr<LogSink> sink)
    : path(configured.substr(0, 1) == "/" ? configured : "/" + configured),
      reading(new Reading{{path, highestArchive, std::move(test)}, std::move(sink)}) {
}

bool LogAside::poll() {
    const bool isNew = aside.begin([reading = reading] {
        reading->follower.poll(*reading->sink);
        return true;
    });
    const auto limit = isNew ? patienceForPiece : std::chrono::seconds(0);
    isSilent = true;
    for (bool goesOn = true; goesOn && isSilent;) {
        const std::uint64_t before = reading->follower.progress();
        isSilent = !aside.answerBy(Aside<bool>::Clock::now() + limit);
        goesOn = reading->follower.progress() != before;
    }
    return !isSilent;
}

std::string LogAside::problem() const {
    return isSilent ? "the log " + path + " can't be read: its file system does not answer"
                    : reading->follower.problem();
}

} // namespace control
