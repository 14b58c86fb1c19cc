// The directory that the files arrive in: what is in place there, and making it durable.
#pragma once

#include "utilities/descriptors.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace confirming {

/// One directory and what is below it. All names are as rsync prints them. Looks at the file system
/// each time; nothing is kept but the directory itself, which stays open. No link is followed on
/// the way to a name: a detector can send any links, and what they lead to is not its own.
class Destination {
public:
    /// `path` is the directory. If it is missing, nothing is in place.
    explicit Destination(const std::string& path);

    /// The size of what is in place under the name, of any kind but a directory; nothing else
    /// counts as a file.
    std::optional<std::uint64_t> sizeOf(const std::string& name) const;
    bool hasFile(const std::string& name) const { return sizeOf(name).has_value(); }

    /// The same answer, where a wrong "no" would lose something: the system may fail to tell.
    enum class Presence { absent, there, unknown };
    Presence presence(const std::string& name) const;

    /// False if the directory is in memory: nothing there survives a cut of the power.
    bool canBeDurable() const;

    /// True if modification times are kept to the nanosecond.
    bool keepsFractions() const;

    /// The inode of the regular file of that name, if it is not known to have been made since the
    /// machine's start: after a cut of the power, a file system may have kept a file's size and
    /// times, and nothing of what was in it. `boot` is the second of the start by the wall clock;
    /// without it any file is old. 0 if the system does not tell.
    std::optional<std::uint64_t> oldInode(const std::string& name,
                                          std::optional<std::int64_t> boot) const;

    /// Makes sure that these files survive a cut of the power, as they are, under their names, with
    /// the folders on the way to them. Waits for the disk. Empty on success, else what went wrong,
    /// here or elsewhere on the file system, since this object began: then nothing can be said of
    /// the files, and they have lost their modification times, so that they are copied again and
    /// not taken for up to date.
    std::string makeDurable(const std::vector<std::string>& names) const;

private:
    Descriptor open(const std::string& name, int flags) const;
    std::optional<struct stat> fileHere(const std::string& name) const;
    std::optional<struct stat> file(const std::string& name) const;
    bool isInItsPlace() const;
    std::optional<std::uint64_t> oldInodeHere(const std::string& name,
                                              std::optional<std::int64_t> boot) const;
    bool flush(const std::vector<std::string>& names) const;

    const std::string path_;
    // Open from before the first file comes: a failure to write is told to who was there before it.
    Descriptor directory_;
    int openError_; // an errno value
};

} // namespace confirming
