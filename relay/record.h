// One announcement, as the relay knows it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace relay {

/// What a line of the pipe tells. The numbers stand in the database.
enum class Kind {
    file = 0,      // a file that is whole at the target: the line is its path
    usershift = 1, // "usershift: UID GID", once for each start of the daemon
    run = 2,       // "run: ..."
    other = 3,     // anything else that came out of the pipe; nothing is thrown away
};

/// What is in place under the path. The numbers stand in the database.
enum class FileType {
    unknown = 0, // it is gone, or could not be looked at
    file = 1,
    folder = 2,
    link = 3,
    special = 4, // a pipe, a socket or a device
};

/// The way from the target to the file. The numbers stand in the database.
enum class Way {
    unknown = 0,  // it could not be looked at
    linkFree = 1, // no part of it is a link, so it does not leave the target
    hasLink = 2,
};

/// What tells one file from another one of the same name.
struct Identity {
    std::int64_t size = 0;
    std::int64_t mtime = 0; // nanoseconds since 1970
    std::uint64_t inode = 0;

    bool operator==(const Identity& other) const {
        return size == other.size && mtime == other.mtime && inode == other.inode;
    }
};

struct Record {
    std::int64_t sequence = 0; // never reused; 0 before the record is in the log
    Kind kind = Kind::file;
    std::string path;     // as it came: any bytes. For other kinds the whole line
    std::string detector; // its ID, or empty if no configured target is the path's
    std::optional<Identity> identity;
    FileType type = FileType::unknown;
    Way way = Way::unknown;
    bool isGone = false;      // when it was looked at there was surely nothing; not in the log
    std::int64_t arrival = 0; // nanoseconds since 1970
    std::int64_t repeats = 0; // how often the same file was announced again
};

/// The kind that a line (without its line feed) is of.
Kind kindOfLine(std::string_view line);

/// The line as the daemon wrote it, with its line feed.
std::string lineOf(const Record& record);

/// The words for these in texts and JSON.
std::string_view nameOf(Kind kind);
std::string_view nameOf(FileType type);
std::optional<Kind> kindNamed(std::string_view name);

/// Nanoseconds in a second.
constexpr std::int64_t billion = 1000000000;

/// Nanoseconds since 1970, now.
std::int64_t now();

} // namespace relay
