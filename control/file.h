// Reading a file, and telling which file it is, without being made to wait by what it turns out to
// be.
#pragma once

#include "utilities/descriptors.h"

#include <cstddef>
#include <optional>
#include <string>
#include <tuple>

#include <sys/stat.h>
#include <sys/types.h>

namespace control {

/// Which file something is, whatever it is called.
struct FileId {
    dev_t device = 0;
    ino_t number = 0;

    bool operator==(const FileId& other) const {
        return device == other.device && number == other.number;
    }
};

/// Of the file at this path, symbolic links followed; nothing when there is none or it may not be
/// looked at. "/proc/812/exe" gives the file that a process runs, also when that was removed. No
/// file server is asked for what the kernel knows: a dead one must not stop a search.
std::optional<FileId> fileIdOf(const std::string& path);

/// Which content a file has, as far as its status tells.
using FileVersion = std::tuple<dev_t, ino_t, off_t, time_t, long>;
FileVersion versionOf(const struct stat& status);

/// That of the file at this path; nothing if it can't be looked at.
std::optional<FileVersion> versionOf(const std::string& path);

/// When a file was last written, in seconds since 1970.
double modificationTime(const struct stat& status);

/// When what is at this path, a link itself, was last written, in seconds since 1970; nothing when
/// it may not be looked at.
std::optional<double> modificationTime(const std::string& path);

/// A regular file that is open for reading, or why it is not.
struct OpenedFile {
    Descriptor descriptor;
    std::string problem; // "No such file or directory", "it is a directory", ...
    int error = 0;       // errno value; 0 for what is not a regular file
    struct stat status = {};
};

/// Opens a regular file. Anything else is refused without being opened, since that could block, or
/// change what a device or a pipe does. `flags` are further ones of open(2), such as O_NOFOLLOW.
OpenedFile openRegularFile(const std::string& path, int flags = 0);

/// Either the text of a file, or why there is none.
struct FileText {
    std::optional<std::string> text;
    std::string problem; // these two as in an OpenedFile
    int error = 0;
    struct stat status = {}; // when `text` is there; as it was before the reading
};

/// Reads a file that openRegularFile() opens, `limit` bytes from `offset` at most.
FileText readFile(const std::string& path, std::size_t limit, off_t offset = 0, int flags = 0);

/// Puts a new file with this text, which all may read, in the place of what is at this path. False,
/// errno set, if that fails.
bool replaceFile(const std::string& path, const std::string& text);

} // namespace control
