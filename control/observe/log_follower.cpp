// Reads the daemon's log as it grows, through its rotations.
#include "control/observe/log_follower.h"

#include "daemon/global.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <thread>

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

std::string textAt(const Descriptor& file, std::uint64_t position, std::uint64_t size) {
    std::string text(size, '\0');
    const ssize_t got = pread(file.get(), text.data(), text.size(), static_cast<off_t>(position));
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

std::uint64_t sizeOf(const Descriptor& file) {
    struct stat status = {};
    return fstat(file.get(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

} // namespace

LogFollower::LogFollower(std::string logPath, int highestArchive, BannerTest test)
    : path(std::move(logPath)), highest(std::max(highestArchive, 0)), mayBeBanner(std::move(test)) {
}

std::string LogFollower::nameOf(int number) const {
    return number < 0 ? path : path + "." + std::to_string(number);
}

void LogFollower::lookForFiles() {
    files.clear();
    int missing = 0;
    for (int number = -1; number <= highest && missing <= missingInARow; ++number) {
        const std::optional<FileId> id = fileIdOf(nameOf(number));
        missing = id ? 0 : missing + 1;
        if (id) {
            files.emplace_back(number, *id);
        }
    }
}

/// On failure `trouble` says why, and errno is ENOENT exactly if there is none.
bool LogFollower::open(int number, Place& place) {
    OpenedFile found = openRegularFile(nameOf(number));
    if (!found.descriptor) {
        trouble = found.error == ENOENT ? "there is no " + nameOf(number)
                                        : "cannot read " + nameOf(number) + ": " + found.problem;
        errno = found.error == 0 ? EINVAL : found.error;
        return false;
    }
    place = {std::move(found.descriptor), {found.status.st_dev, found.status.st_ino}, 0};
    trouble.clear();
    return true;
}

void LogFollower::poll(LogSink& sink) {
    if (at.file || begin()) {
        readAll(sink);
    }
    std::error_code isNoFile;
    const std::uintmax_t size = std::filesystem::file_size(path, isNoFile);
    fileSize = isNoFile ? 0 : size;
}

/// Finds what is to be read first. False, and `trouble` says why, if there is nothing.
bool LogFollower::begin() {
    Place log;
    const bool isThere = open(-1, log);
    if (!isThere && errno != ENOENT) {
        return false; // what stands beside a device or a pipe of that name is not the daemon's
    }
    const std::string whyNot = trouble;
    lookForFiles();
    if (sawNothing) {
        return !files.empty() && open(files.back().first, at);
    }
    std::uint64_t budget = longestSearch;
    for (const auto& [number, id] : files) {
        Place place;
        if (open(number, place) && searchBanner(place, budget)) {
            at = std::move(place);
            return true;
        }
    }
    trouble = whyNot;
    sawNothing = files.empty();
    if (isThere) {
        at = std::move(log);
        at.offset = sizeOf(at.file);
    }
    return isThere;
}

/// Searches a file backwards. `budget` is what may still be read.
bool LogFollower::searchBanner(Place& place, std::uint64_t& budget) {
    static const std::string mark = std::string(78, '+') + "\n\n++ " + GLOBAL::progName + " ";
    static const std::string dateMark = "\n++ on ";
    constexpr std::uint64_t overlap = 512; // a banner's first lines are shorter
    for (std::uint64_t end = sizeOf(place.file); end > 0 && budget > 0;) {
        const std::uint64_t begin = end - std::min(end, searchPiece);
        const std::string text = textAt(place.file, begin, end - begin + overlap);
        ++pieces;
        for (std::size_t found = text.rfind(mark, end - begin); found != std::string::npos;
             found = found == 0 ? std::string::npos : text.rfind(mark, found - 1)) {
            const std::size_t date = text.find(dateMark, found + mark.size());
            const std::size_t dateBegin = date + dateMark.size();
            const std::size_t dateEnd =
                date == std::string::npos ? date : text.find('\n', dateBegin);
            const bool beginsLine = begin + found == 0 || (found > 0 && text[found - 1] == '\n');
            if (beginsLine && dateEnd != std::string::npos &&
                (!mayBeBanner ||
                 mayBeBanner(std::string_view(text).substr(dateBegin, dateEnd - dateBegin)))) {
                place.offset = begin + found;
                return true;
            }
        }
        budget -= std::min(budget, end - begin);
        end = begin;
    }
    return false;
}

/// Hands on what came, through as many rotations as there were.
void LogFollower::readAll(LogSink& sink) {
    if (sizeOf(at.file) < at.offset ||
        textAt(at.file, at.offset - tail.size(), tail.size()) != tail) {
        // An operator has emptied the file, and the daemon may have filled it again since.
        at.offset = 0;
        unfinished.clear();
        sink.takeGap();
    }
    for (int attempt = 0;;) {
        readNew(sink);
        const Step step = advance(sink, attempt == patience);
        if (step == Step::caughtUp) {
            break;
        }
        if (step == Step::again) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1) * (1 << attempt));
        }
        attempt = step == Step::again ? attempt + 1 : 0;
    }
    const std::uint64_t size = std::min(at.offset, tailSize);
    tail = textAt(at.file, at.offset - size, size);
}

void LogFollower::readNew(LogSink& sink) {
    const std::uint64_t end = sizeOf(at.file);
    while (at.offset < end) {
        const std::size_t before = unfinished.size();
        unfinished.resize(before + pieceSize);
        const ssize_t got = pread(at.file.get(), unfinished.data() + before, pieceSize,
                                  static_cast<off_t>(at.offset));
        unfinished.resize(before + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got <= 0) {
            trouble = got < 0 ? "cannot read " + path + ": " + std::strerror(errno) : trouble;
            return;
        }
        at.offset += static_cast<std::uint64_t>(got);
        ++pieces;
        const std::size_t whole = unfinished.rfind('\n') + 1;
        sink.takeLines(std::string_view(unfinished).substr(0, whole));
        unfinished.erase(0, whole);
        if (unfinished.size() > longestUnfinished) {
            unfinished.erase(keptHead, unfinished.size() - keptHead - keptTail);
        }
    }
}

/// Goes from the file that was read to the next newer one, if there is one.
LogFollower::Step LogFollower::advance(LogSink& sink, bool isLastTry) {
    lookForFiles();
    const auto here = std::find_if(files.begin(), files.end(),
                                   [this](const auto& file) { return file.second == at.id; });
    const bool isGone = here == files.end(); // removed by hand, or rotated faster than it was read
    const int number = isGone ? 0 : here->first;
    if (number < 0) {
        return Step::caughtUp;
    }
    readNew(sink); // whatever was written before it was renamed is there by now
    Place next;
    bool isOpen = open(number - 1, next);
    // Only while it still has that number is the other file the one that came after it.
    if (!isGone && !(fileIdOf(nameOf(number)) == at.id) && !isLastTry) {
        return Step::again;
    }
    if (!isOpen && number > 0) {
        if (!isLastTry) {
            return Step::again; // a rotation has moved this one and is about to move the next one
        }
        isOpen = open(-1, next);
        sink.takeGap();
    }
    if (!isOpen) {
        if (errno == ENOENT) {
            trouble.clear(); // nothing was written since
        }
        return Step::caughtUp;
    }
    if (isGone) {
        sink.takeGap();
    }
    if (!unfinished.empty()) {
        sink.takeLine(unfinished); // its end was never written
        unfinished.clear();
    }
    at = std::move(next);
    ++rotationCount;
    return Step::moved;
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
