// Reads the daemon's log as it grows, through its rotations.
#pragma once

#include "utilities/descriptors.h"

#include <cstdint>
#include <string>
#include <string_view>

#include <sys/types.h>

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

/// Follows a log that is rotated by renaming: NAME.i to NAME.(i+1), NAME to NAME.0, and a fresh
/// NAME at the next write.
///
/// It begins with the oldest archive. The file that was read last stays open, so that no other file
/// can get its inode and be taken for it; under whatever name it is found again, the files behind
/// it are those that came after it. Memory is bounded: of a line of more than 64 KiB the middle is
/// left out.
class LogFollower {
public:
    /// `path` is the log's absolute path, `highestArchive` the number of the oldest archive that
    /// the daemon keeps (below 0 counts as 0).
    LogFollower(std::string path, int highestArchive);

    /// Hands on what came since the last call. A last line waits until it is whole.
    void poll(LogSink& sink);

    /// One sentence that says why the log can't be read; empty when it can.
    const std::string& problem() const { return trouble; }

    /// Rotations seen since the first poll.
    std::uint64_t rotations() const { return rotationCount; }

private:
    /// What one name stands for, at one moment.
    struct Place {
        dev_t device = 0;
        ino_t inode = 0;
        bool operator==(const Place& other) const {
            return device == other.device && inode == other.inode;
        }
    };

    enum class Step { caughtUp, moved, again };

    std::string archive(int number) const;
    int numberOf(const Place& place);
    int oldestArchive() const;
    bool openOldest();
    bool openNext(const std::string& name, Descriptor& opened, Place& place);
    void readNew(LogSink& sink);
    void takePiece(std::string_view piece, LogSink& sink);
    void heedTruncation(LogSink& sink);
    Step advance(LogSink& sink, bool isLastTry);
    Step advanceFrom(int number, LogSink& sink, bool isLastTry);
    Step skipAhead(LogSink& sink, int below);
    void moveTo(Descriptor opened, const Place& place, LogSink& sink);

    std::string path;
    int highest;
    std::string trouble;
    Descriptor file;
    Place current;      // of `file`
    Place predecessor;  // the newest archive when `file` was opened as the log; no inode: none
    int lastNumber = 0; // of the archive that `file` was when it was last looked for
    std::uint64_t offset = 0;
    std::string unfinished; // the beginning of a line whose end is not there yet
    std::string buffer;
    bool caughtUpOnce = false;
    std::uint64_t rotationCount = 0;
};

/// How many rotated files there are.
int countArchives(const std::string& path, int highestArchive);

} // namespace control
