// What is in a named pipe, without consuming it.
#pragma once

#include "utilities/descriptors.h"

#include <cstddef>
#include <optional>
#include <string>

namespace relay {

/// Copies through a private pipe, which it keeps. Used by one thread.
class PipeCopy {
public:
    /// For pipes that hold as much as this one. Throws std::runtime_error if there can be none.
    explicit PipeCopy(int likePipe);

    /// The first bytes in the pipe, so many at most; all stay in it. False, errno set, if they
    /// can't be had.
    bool take(int fromPipe, std::size_t most, std::string& bytes);

private:
    Descriptor in;
    Descriptor out;
};

/// Opens the named pipe for reading and writing, without blocking: so it has always a reader, and
/// never an end of file. Makes it, with that very mode, if it is missing. Throws
/// std::runtime_error.
Descriptor openPipe(const std::string& path, mode_t mode);

/// How many bytes are in it; nothing if that can't be told.
std::optional<std::size_t> bytesIn(const Descriptor& pipe);

} // namespace relay
