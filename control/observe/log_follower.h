// Reads the daemon's log as it grows, through its rotations.
#pragma once

#include "control/aside.h"
#include "control/file.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace control {

/// Takes what a LogFollower reads.
class LogSink {
public:
    virtual ~LogSink() = default;

    /// The next line, without its line feed. The text is gone when this returns.
    virtual void takeLine(std::string_view line) = 0;

    /// Lines may be missing between the last one and the next.
    virtual void takeGap() = 0;

    /// Takes line by line. A text that does not end in a line feed is taken as if it did.
    void takeLines(std::string_view lines) {
        while (!lines.empty()) {
            const std::size_t end = std::min(lines.find('\n'), lines.size());
            takeLine(lines.substr(0, end));
            lines.remove_prefix(std::min(end + 1, lines.size()));
        }
    }
};

/// Whether the daemon can have written a banner with this date.
using BannerTest = std::function<bool(std::string_view date)>;

/// Follows a log that is rotated by renaming: NAME.i to NAME.(i+1), NAME to NAME.0, and a fresh
/// NAME at the next write.
///
/// It begins with the last banner that the daemon can have written, searched backwards through
/// the archives for some hundred megabytes; if there is none, with what is written from now on. The
/// file that was read last stays open, so that no other file can get its inode and be taken for it.
/// Memory is bounded: of a line of more than 64 KiB the middle is left out.
class LogFollower {
public:
    /// `path` is the log's absolute path, `highestArchive` the number of the oldest archive that
    /// the daemon keeps (below 0 counts as 0).
    LogFollower(std::string path, int highestArchive, BannerTest test);

    /// Hands on what came since the last call. A last line waits until it is whole.
    void poll(LogSink& sink);

    /// One sentence that says why the log can't be read; empty when it can.
    const std::string& problem() const { return trouble; }

    /// Rotations seen since the first poll.
    std::uint64_t rotations() const { return rotationCount; }

    /// Rotated files that were there at the last poll, and the bytes of the file that was not.
    int archives() const {
        return static_cast<int>(std::count_if(files.begin(), files.end(),
                                              [](const auto& file) { return file.first >= 0; }));
    }
    std::uint64_t bytes() const { return fileSize; }

    /// Grows as long as poll() gets what it asks for. For any thread.
    std::uint64_t progress() const { return pieces; }

private:
    enum class Step { caughtUp, moved, again };

    /// A file of the log, open, and how far it was read.
    struct Place {
        Descriptor file;
        FileId id;
        std::uint64_t offset = 0;
    };

    // The files are numbered from the newest, the log itself being -1.
    std::string nameOf(int number) const;
    void lookForFiles();
    bool open(int number, Place& place);
    bool begin();
    bool searchBanner(Place& place, std::uint64_t& budget);
    void readAll(LogSink& sink);
    void readNew(LogSink& sink);
    Step advance(LogSink& sink, bool isLastTry);

    std::string path;
    int highest;
    BannerTest mayBeBanner;
    bool sawNothing = false; // at the first look: all that comes is new
    std::string trouble;
    std::vector<std::pair<int, FileId>> files; // that there were, from the newest to the oldest
    Place at;
    std::string tail;       // of what was read of this file, to see whether it was written anew
    std::string unfinished; // the beginning of a line whose end is not there yet
    std::uint64_t rotationCount = 0;
    std::uint64_t fileSize = 0;
    std::atomic<std::uint64_t> pieces{0};
};

/// A log that is followed on a thread aside, since its file system may never answer.
class LogAside {
public:
    /// As of a LogFollower, but for `configured`: the daemon takes it from "/". What is read goes
    /// to `sink`.
    LogAside(const std::string& configured, int highestArchive, BannerTest test,
             std::shared_ptr<LogSink> sink);

    /// Hands on what came since the last call, however long that is. False if for two seconds
    /// nothing can be read; and from then on at once, until it could. Only after a true one may the
    /// sink be used, and follower().
    bool poll();

    /// One sentence that says why the log can't be read; empty when it can.
    std::string problem() const;

    const std::string& absolutePath() const { return path; }
    const LogFollower& follower() const { return reading->follower; }

private:
    struct Reading {
        LogFollower follower;
        std::shared_ptr<LogSink> sink;
    };

    std::string path;
    std::shared_ptr<Reading> reading; // the thread's own, too
    Aside<bool> aside;
    bool isSilent = false;
};

} // namespace control
