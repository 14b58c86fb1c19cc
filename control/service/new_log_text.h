// What the daemon adds to its log from a moment on, wherever rotation puts it.
#pragma once

#include "utilities/descriptors.h"

#include <cstdint>
#include <string>

#include <sys/types.h>

namespace control {

/// Remembers where a log ends, to read later what was added. Keeps the file of that moment open,
/// so that it is found again however often it is renamed.
class NewLogText {
public:
    /// `highestArchive` is the number of the oldest archive that the daemon keeps.
    NewLogText(std::string path, int highestArchive);

    /// The beginning of what was added since, 64 KiB of each file at most, oldest file first.
    std::string read() const;

    /// False if there is no file to read: the log is /dev/null or another device, or this user may
    /// not read it.
    bool isReadable() const;

private:
    std::string path;
    int highest;
    Descriptor original; // the file that was the log; none if there was none
    off_t originalSize = 0;
    std::int64_t since = 0; // seconds since 1970
};

} // namespace control
