// What the caller asked for, and the argument vectors and environment that stock rsync gets for it.
#pragma once

#include <string>
#include <vector>

namespace confirming {

/// The command line, taken apart. All arguments are without the program's own name.
struct Arguments {
    bool confirming = false;               // --confirm-files was among them
    std::vector<std::string> rsync;        // what stock rsync is to be started with
    std::string source;                    // the last but one; empty if there are fewer than two
    std::string destination;               // the last; empty likewise
    std::string listedSource;              // the last, if --list-only was among them
    std::string fileList;                  // value of --files-from; empty without that option
    bool fileListEndsNamesWithNul = false; // --from0
    std::vector<std::string> access;       // options that a further call needs to be let in
};

/// Reads the command line. Without --confirm-files, stock rsync gets the same and --8-bit-output,
/// and limits to its waits if it lists a share. With it, that option is dropped, what a report
/// takes is added, and the owner of the received files is set from `uid` and `gid`, each a number
/// or a name, or empty for "leave it". The added options come first, so that the caller's own win.
///
/// A copy gets no limit but for the connecting: rsync's own would keep both sides talking while
/// neither does anything, which could then not be noticed.
Arguments readArguments(const std::vector<std::string>& arguments, const std::string& uid,
                        const std::string& gid);

/// The arguments for stock rsync, with a list on its standard input instead of the caller's: names
/// that are each ended by a NUL byte.
std::vector<std::string> withListOnInput(const Arguments& arguments);

/// The environment for stock rsync, as "NAME=value": the given one, plus a PATH if there is none,
/// and LC_ALL=C, because its messages are read.
std::vector<std::string> childEnvironment(std::vector<std::string> environment);

} // namespace confirming
