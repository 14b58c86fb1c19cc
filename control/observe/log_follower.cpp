// Reads the daemon's log as it grows, through its rotations.
#include "control/observe/log_follower.h"

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

/// Of a line that has no end yet, this much of its beginning and of its end is kept.
constexpr std::size_t longestUnfinished = 65536;
constexpr std::size_t keptHead = 1024;
constexpr std::size_t keptTail = 32768;

/// A rotation in progress leaves one archive missing, and whoever cleans up by hand may leave more.
constexpr int missingInARow = 8;

/// How often a step is tried again because a rotation was going on, each time after twice the
/// pause: a quarter of a second in all.
constexpr int patience = 8;

/// More than any daemon can rotate through between two looks, or keep.
constexpr int mostSteps = 1000000;

std::string numbered(const std::string& path, int number) {
    return path + "." + std::to_string(number);
}

bool exists(const std::string& name) {
    struct stat status = {};
    return stat(name.c_str(), &status) == 0;
}

/// The highest number of an archive that is there; -1 if there is none.
int highestThere(const std::string& path, int highest) {
    int found = -1;
    int missing = 0;
    for (int number = 0; number <= highest && missing < missingInARow; ++number) {
        if (exists(numbered(path, number))) {
            found = number;
            missing = 0;
        } else {
            ++missing;
        }
    }
    return found;
}

std::string kindOf(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "a folder";
    }
    if (S_ISFIFO(mode)) {
        return "a named pipe";
    }
    if (S_ISCHR(mode) || S_ISBLK(mode)) {
        return "a device";
    }
    return "no regular file";
}

void waitALittle(int attempt) {
    timespec pause = {0, 1000000L << attempt};
    nanosleep(&pause, nullptr);
}

} // namespace

int countArchives(const std::string& path, int highestArchive) {
    int count = 0;
    const int last = highestThere(path, std::max(highestArchive, 0));
    for (int number = 0; number <= last; ++number) {
        count += exists(numbered(path, number)) ? 1 : 0;
    }
    return count;
}

LogFollower::LogFollower(std::string logPath, int highestArchive)
    : path(std::move(logPath)), highest(std::max(highestArchive, 0)) {
}

std::string LogFollower::archive(int number) const {
    return numbered(path, number);
}

void LogFollower::poll(LogSink& sink) {
    if (file.get() < 0 && !openOldest()) {
        return;
    }
    int attempt = 0;
    for (int steps = 0; steps < mostSteps && attempt <= patience; ++steps) {
        readNew(sink);
        const Step step = advance(sink, attempt == patience);
        if (step == Step::caughtUp) {
            caughtUpOnce = true;
            return;
        }
        if (step == Step::moved) {
            attempt = 0;
        } else {
            waitALittle(attempt);
            ++attempt;
        }
    }
}

/// Opens what is to be read first. False, and `trouble` says why, if there is nothing.
bool LogFollower::openOldest() {
    Place place;
    for (int number = highestThere(path, highest); number >= 0; --number) {
        struct stat status = {};
        // What stands beside a device or a pipe of that name is not the daemon's.
        if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
            break;
        }
        if (openNext(archive(number), file, place)) {
            // A rotation may have moved the oldest one up before it was opened.
            if (number < highest && exists(archive(number + 1))) {
                Descriptor older;
                Place olderPlace;
                if (openNext(archive(number + 1), older, olderPlace)) {
                    file = std::move(older);
                    place = olderPlace;
                    ++number;
                }
            }
            current = place;
            lastNumber = number;
            trouble.clear();
            return true;
        }
    }
    if (!openNext(path, file, place)) {
        return false;
    }
    current = place;
    lastNumber = 0;
    return true;
}

/// Opens a regular file without ever waiting. On failure `trouble` says why, and errno is ENOENT
/// exactly if there is none.
bool LogFollower::openNext(const std::string& name, Descriptor& opened, Place& place) {
    struct stat status = {};
    int error = stat(name.c_str(), &status) == 0 ? 0 : errno;
    if (error == 0 && !S_ISREG(status.st_mode)) {
        trouble = name + " is " + kindOf(status.st_mode) + ": it keeps nothing that could be read";
        errno = EINVAL;
        return false;
    }
    Descriptor descriptor;
    if (error == 0) {
        descriptor = Descriptor(open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        error = descriptor.get() < 0 || fstat(descriptor.get(), &status) != 0 ? errno : 0;
    }
    if (error == 0 && !S_ISREG(status.st_mode)) {
        error = EINVAL;
    }
    if (error != 0) {
        trouble = error == ENOENT ? "there is no " + name
                                  : "cannot read " + name + ": " + std::strerror(error);
        errno = error;
        return false;
    }
    place = {status.st_dev, status.st_ino};
    opened = std::move(descriptor);
    trouble.clear();
    return true;
}

void LogFollower::readNew(LogSink& sink) {
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) {
        return;
    }
    buffer.resize(pieceSize);
    while (offset < static_cast<std::uint64_t>(status.st_size)) {
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

/// An operator may have emptied the file.
void LogFollower::heedTruncation(LogSink& sink) {
    struct stat status = {};
    if (fstat(file.get(), &status) == 0 && static_cast<std::uint64_t>(status.st_size) < offset) {
        offset = 0;
        unfinished.clear();
        sink.takeGap();
        readNew(sink);
    }
}

/// Goes from the file that was read to the next newer one, if there is one.
LogFollower::Step LogFollower::advance(LogSink& sink, bool isLastTry) {
    heedTruncation(sink);
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0) {
        const Place now = {status.st_dev, status.st_ino};
        if (now == current) {
            lastNumber = 0;
            return Step::caughtUp;
        }
    }
    const int number = numberOf(current);
    // Whatever was written before it was renamed is there by now.
    readNew(sink);
    return number < 0 ? skipAhead(sink, oldestArchive() + 1) : advanceFrom(number, sink, isLastTry);
}

/// The number of the archive that is this file; -1 if none is. Archives only move to higher
/// numbers, and so does this search: a rotation meanwhile does not hide the file from it.
int LogFollower::numberOf(const Place& place) {
    for (const int begin : {lastNumber, 0}) {
        int missing = 0;
        for (int number = begin; number <= highest && missing < missingInARow; ++number) {
            struct stat status = {};
            if (stat(archive(number).c_str(), &status) != 0) {
                ++missing;
                continue;
            }
            missing = 0;
            if (place == Place{status.st_dev, status.st_ino}) {
                lastNumber = number;
                return number;
            }
        }
    }
    return -1;
}

/// `file` is the archive of this number: the one below it, or the log, came after it. Only while
/// `file` still has that number after the other was opened: renames begin at the highest.
LogFollower::Step LogFollower::advanceFrom(int number, LogSink& sink, bool isLastTry) {
    const std::string next = number == 0 ? path : archive(number - 1);
    Descriptor opened;
    Place place;
    const bool isOpen = openNext(next, opened, place);
    const bool isMissing = !isOpen && errno == ENOENT;
    struct stat status = {};
    if (stat(archive(number).c_str(), &status) != 0 ||
        !(current == Place{status.st_dev, status.st_ino})) {
        return Step::again;
    }
    if (isOpen) {
        if (number == 0) {
            predecessor = current;
        }
        moveTo(std::move(opened), place, sink);
        lastNumber = std::max(number - 1, 0);
        return Step::moved;
    }
    if (number == 0) {
        if (isMissing) {
            trouble.clear(); // nothing was written since the rotation
        }
        return Step::caughtUp;
    }
    // A rotation has moved `file` and is about to move the next one, or somebody has removed it.
    return isMissing && !isLastTry ? Step::again : skipAhead(sink, number - 1);
}

/// The oldest archive that was written to after `file`; -1 if there is none. When in doubt it is
/// left out: what was read once is not to be counted again.
int LogFollower::oldestArchive() const {
    struct stat own = {};
    if (fstat(file.get(), &own) != 0) {
        return -1;
    }
    int oldest = -1;
    for (int number = 0; number <= highest; ++number) {
        struct stat status = {};
        if (stat(archive(number).c_str(), &status) != 0 ||
            std::pair(status.st_mtim.tv_sec, status.st_mtim.tv_nsec) <=
                std::pair(own.st_mtim.tv_sec, own.st_mtim.tv_nsec)) {
            break;
        }
        oldest = number;
    }
    return oldest;
}

/// Goes on where it can: with the oldest archive whose number is below `below`, or else the log.
LogFollower::Step LogFollower::skipAhead(LogSink& sink, int below) {
    struct stat status = {};
    const Place newest =
        stat(archive(0).c_str(), &status) == 0 ? Place{status.st_dev, status.st_ino} : Place{};
    // A log that was removed by hand was the newest all the same.
    const bool nothingRotated = newest == predecessor && numberOf(current) < 0;
    if (nothingRotated) {
        below = 0;
    }
    Descriptor opened;
    Place place;
    for (int number = below - 1; number >= 0; --number) {
        if (openNext(archive(number), opened, place)) {
            moveTo(std::move(opened), place, sink);
            sink.takeGap();
            lastNumber = number;
            return Step::moved;
        }
    }
    if (!openNext(path, opened, place)) {
        return Step::caughtUp;
    }
    moveTo(std::move(opened), place, sink);
    if (!nothingRotated) {
        sink.takeGap();
    }
    predecessor = newest;
    lastNumber = 0;
    return Step::moved;
}

void LogFollower::moveTo(Descriptor opened, const Place& place, LogSink& sink) {
    if (!unfinished.empty()) {
        // Its end was never written.
        unfinished += '\n';
        sink.takeLines(unfinished);
        unfinished.clear();
    }
    file = std::move(opened);
    current = place;
    offset = 0;
    rotationCount += caughtUpOnce ? 1 : 0;
}

} // namespace control
