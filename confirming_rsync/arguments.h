// What the caller asked for, and the argument vectors and environment that stock rsync gets for it.
#pragma once

#include "confirming_rsync/share_question.h"

#include <optional>
#include <string>
#include <vector>

namespace confirming {

/// The command line, taken apart. All arguments are without the program's own name.
struct Arguments {
    bool confirming = false;           // --confirm-files was among them
    std::vector<std::string> rsync;    // what stock rsync is to be started with, but for a list
    std::string source;                // the last but one; empty if there are fewer than two
    std::string destination;           // the last; empty likewise
    std::string listedSource;          // the last, if --list-only was among them
    std::string fileList;              // value of --files-from; empty without that option
    bool listEndsNamesWithNul = false; // --from0
    std::vector<std::string> access;   // options that a further call needs to be let in
};

/// Reads the command line. Without --confirm-files, stock rsync gets the same and --8-bit-output,
/// and limits to its waits if it lists a share. With it, that option and those about the list are
/// dropped, what a report takes is added, and the owner of the received files is set from `uid` and
/// `gid`, each a number or a name, or empty for "leave it". The added options come first, so that
/// the caller's own win.
///
/// A copy gets no limit but for the connecting: rsync's own would keep both sides talking while
/// neither does anything, which could then not be noticed.
Arguments readArguments(const std::vector<std::string>& arguments, const std::string& uid,
                        const std::string& gid);

/// What one stock rsync is to do with the names on its standard input.
enum class Pass {
    copyAndRemove, // for a target that nothing makes durable
    copy,          // leaves the source as it is
    remove,        // removes what is at the target exactly as it is at the source, copies nothing
};

/// By what rsync tells that a file at the target is up to date, besides its size.
enum class Comparison {
    seconds,     // of the modification time
    nanoseconds, // the same, exactly
    none,        // nothing is up to date, everything is sent
};

/// The arguments for one pass. The names come on its standard input, each as Share::entry() gives
/// it and ended by a NUL byte.
std::vector<std::string> passArguments(const Arguments& arguments, const Share& share, Pass pass,
                                       Comparison comparison);

/// In the pass that removes, rsync has no place for what it would have to copy: here nothing can be
/// created.
constexpr std::string_view noPlace = "/proc";

/// The environment for stock rsync, as "NAME=value": the given one, plus a PATH if there is none,
/// and LC_ALL=C, because its messages are read.
std::vector<std::string> childEnvironment(std::vector<std::string> environment);

} // namespace confirming
