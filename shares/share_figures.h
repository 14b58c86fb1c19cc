// What the listings and copies of a share come to, in small files that anyone may read meanwhile.
// docs/share-figures.md has their form to the byte.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace confirming {

/// Nanoseconds on two clocks: since 1970, which may be set, and since the boot, asleep or not, from
/// which durations are told. Never: both 0.
struct Moment {
    std::uint64_t realtime = 0;
    std::uint64_t boottime = 0;
};

/// What one segment says: of a share's listings, or of the copies from it to one destination.
struct ShareFigures {
    /// What is counted; the numbers are part of the segments' form. All but `begun` is of copies.
    enum Count : std::size_t {
        begun,
        confirmedFiles,
        confirmedBytes,
        recoveredFiles, // not among those confirmed
        recoveredBytes,
        unconfirmedFiles,
        flushes,
        flushErrors,
        flushNanoseconds
    };
    /// The last listing that ended, or the last name that was announced.
    struct Event {
        Moment at; // never, if there was none
        // Of listings:
        std::int64_t status = 0;
        std::uint64_t entries = 0;
        std::uint64_t failuresInARow = 0;
        Moment failingSince; // the end of the first of these
    };
    /// A listing or copy that has begun and not ended. If not alive it died, maybe long ago.
    struct Unended {
        pid_t pid = 0;
        bool alive = false;
        Moment begun; // never, if its record is being written, or was when it died
    };

    std::string share;
    std::string destination; // empty for listings
    std::string boot;        // the boot in which they count
    Moment since;            // when they began to count
    std::array<std::uint64_t, 16> counts{};
    Event last;
    std::string lastText; // the listing's complaint, or the name
    std::vector<Unended> unended;
};

/// What the segment at this path says, while others write it or not. Nothing if it is none.
std::optional<ShareFigures> readShareFigures(const std::string& path);

/// What all segments below this folder say, by path.
std::vector<ShareFigures> readAllShareFigures(const std::string& base);

/// The part of a segment that one process writes. Where no segment can be had only its own process
/// learns of the figures. Waits for no other process; none is held up or misled by its death.
class FiguresWriter {
public:
    /// What the segment says now, but whose it is. May be called by any thread at any time.
    ShareFigures figures() const;

protected:
    struct State;
    std::shared_ptr<State> state_;
};

/// Writes the figures of a share's listings. One that begins and is destroyed stays unended.
class ListingFigures : public FiguresWriter {
public:
    ListingFigures(const std::string& base, const std::string& share);

    void begin();
    /// Any status but 0 is a failure. Of a long complaint the end is dropped.
    void end(int status, std::uint64_t entries, std::string_view complaint);
};

/// Writes the figures of one copy, which lasts as long as the object. Announcing a name takes no
/// system call. Not for use by several threads.
class CopyFigures : public FiguresWriter {
public:
    CopyFigures(const std::string& base, const std::string& share, const std::string& destination);
    ~CopyFigures();
    CopyFigures(const CopyFigures&) = delete;
    CopyFigures& operator=(const CopyFigures&) = delete;

    void confirmed(std::string_view name, std::uint64_t bytes);
    void recovered(std::string_view name, std::uint64_t bytes);
    void leftUnconfirmed(std::uint64_t files);
    void flushed(std::chrono::nanoseconds duration, bool failed);
};

} // namespace confirming
