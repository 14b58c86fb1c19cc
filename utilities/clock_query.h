// Asking a detector for its clock by way of a file's date.
#pragma once

#include <string>

namespace UTILITIES {

/// Runs the copy program's dry run on one file and reads the date that it prints. Part of the
/// interface of UTILITIES; nothing in the daemon calls it. `transcript` is overwritten with the
/// command line and every line read, each followed by a line feed of its own. Returns the date as
/// mktime gives it, narrowed to int, or -1: no date line, or a date that can't be read. The first
/// and fifth argument are not used. When no date line comes, the stream is left open.
int getRsyncTime(const std::string& ignoredFirst, const std::string& passwordFile,
                 const std::string& host, const std::string& directory,
                 const std::string& ignoredFifth, const std::string& path, std::string& transcript);

} // namespace UTILITIES
