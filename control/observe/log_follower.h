// Reads the daemon's log as it grows, through its rotations.
#pragma once

#include "control/aside.h"
#include "control/process.h"
#include "utilities/descriptors.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace control {

/// Takes what a LogFollower reads.
class LogSink {
public:
    virtual ~LogSink() = default;

    /// Whole lines in the order of the log, each with its line feed. The text is gone when this
    /// returns.
    virtual void takeLines(std::string_view lines) = 0;

    /// Lines may be missing between the last ones and the next.
    virtual void takeGap() = 0;
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
    int archives() const { return archiveCount; }
    std::uint64_t bytes() const { return fileSize; }

    /// Grows as long as poll() gets what it asks for. For any thread.
    std::uint64_t progress() const { return pieces; }

private:
    enum class Step { caughtUp, moved, again };

    std::string archive(int number) const;
    bool begin();
    bool beginWithOldest(Descriptor log, const FileId& id);
    bool searchBanner(const Descriptor& opened, std::uint64_t& position, std::uint64_t& budget);
    bool openFile(const std::string& name, Descriptor& opened, FileId& id);
    int numberOf(const FileId& id) const;
    void readAll(LogSink& sink);
    void readNew(LogSink& sink);
    void takePiece(std::string_view piece, LogSink& sink);
    void heedRewriting(LogSink& sink);
    Step advance(LogSink& sink, bool isLastTry);
    void moveTo(Descriptor opened, const FileId& id, LogSink& sink);

    std::string path;
    int highest;
    BannerTest mayBeBanner;
    bool sawNothing = false; // at the first look: all that comes is new
    std::string trouble;
    Descriptor file;
    FileId current; // of `file`
    std::uint64_t offset = 0;
    std::string tail;       // of what was read of `file`, to see whether it was written anew
    std::string unfinished; // the beginning of a line whose end is not there yet
    std::string buffer;
    std::uint64_t rotationCount = 0;
    int archiveCount = 0;
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
