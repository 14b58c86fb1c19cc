// Reading whole texts; files and folders that nobody but this user can have filled.
#pragma once

#include "utilities/descriptors.h"

#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace confirming {

/// Reads all that is there from where the descriptor stands. False, errno set, if reading fails.
bool readText(const Descriptor& file, std::string& text);

/// The text of a file of any kind. Nothing, errno set, if it can't be opened or read.
std::optional<std::string> readTextFile(const std::string& path);

/// True if nobody but this user may write to it.
bool isOwn(const struct stat& status);

/// Opens a file of the folder for reading. Empty, errno set, if it can't be opened; EPERM if
/// anybody else can have written it.
Descriptor openOwnFile(const Descriptor& folder, const std::string& name);

/// Opens the folder of that name below another one, a descriptor or AT_FDCWD. A link is not
/// followed. Empty, errno set, if it can't be had; EPERM if anybody else may write to it.
Descriptor openOwnFolder(int parent, const std::string& name);

/// The same; made with that very mode, whatever the umask, if it is missing. If `isDurable`, a new
/// one is there after a cut of the power, too.
Descriptor makeOwnFolder(int parent, const std::string& name, mode_t mode, bool isDurable);

/// The names of what is in a folder, but "." and "..", by their bytes. None if it can't be read.
std::vector<std::string> namesIn(const Descriptor& folder);

} // namespace confirming
