// The two files in which the daemon tells of itself: the PID file and the status file.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace control {

/// Where the daemon keeps its PID file: line 1 itself, the others its running copy processes.
std::string pidFilePath();

/// Where it wrote, once at its start, how many copy processes a detector may have.
std::string statusFilePath();

/// What stands in a PID file. Only a claim: the daemon may have died, and the numbers may belong to
/// others by now.
struct PidFile {
    enum class State {
        absent,     // there is none
        unreadable, // no regular file, or it can't be read; `problem` says why
        damaged, // not as the daemon writes it: empty, cut off, or other text; `problem` says how
        whole,
    };
    State state = State::absent;
    std::string problem;              // one sentence, for `unreadable` and `damaged`
    pid_t daemon = 0;                 // only when whole
    std::vector<pid_t> copyProcesses; // only when whole
    double written = 0;               // seconds since 1970; the file's modification time
    uid_t owner = 0;                  // of the file, when it could be read
};

/// A longer PID file is damaged: no daemon has some thousands of copy processes.
constexpr std::size_t pidFileLimit = 65536;

/// Reads the text of a PID file: decimal numbers from 2 on, one per line, each ended by a line feed
/// and nothing else. Gives `whole` or `damaged`.
PidFile parsePidFile(std::string_view text);

/// Reads the PID file. The daemon truncates and rewrites it without a lock, so that a reader may
/// meet it half-written: a damaged one is read again, for a quarter of a second at most.
PidFile readPidFile();

/// The number of copy processes in the text of a status file ("njobs 8\n").
std::optional<int> parseStatusFile(std::string_view text);

/// The same from the status file itself; nothing when it is absent or holds something else.
std::optional<int> readStatusFile();

} // namespace control
