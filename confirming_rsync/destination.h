// The directory that the files arrive in.
#pragma once

#include <string>

namespace confirming {

/// Answers questions about files below one directory. All names are as rsync prints them. Looks at
/// the file system each time; nothing is kept.
class Destination {
public:
    explicit Destination(std::string path);

    /// False if the file is a regular one with a single link. Of such a file rsync prints the SENT
    /// line, if any, before the source is removed; of symbolic links, devices and hard links it may
    /// come after. A file that is missing is told nothing of, so true.
    bool sentLineMayFollow(const std::string& name) const;

    /// True if there is a file of any kind but a directory under that name.
    bool hasFile(const std::string& name) const;

private:
    std::string path_;
};

} // namespace confirming
