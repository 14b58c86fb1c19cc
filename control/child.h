// A program that this one runs, and what it prints.
#pragma once

#include "utilities/descriptors.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace control {

/// A child process whose standard output and error come here, as one text. Its environment and
/// working directory are this program's; its signals have their default actions and none is
/// blocked; its standard input is /dev/null; nothing else is open in it; it leads a process group.
class Child {
public:
    using Clock = std::chrono::steady_clock;

    /// Starts the program at the path that is the first word; see `startError`.
    explicit Child(const std::vector<std::string>& words);

    /// An errno value, if it could not be started: then nothing else here may be used.
    int startError() const { return error; }
    pid_t pid() const { return number; }

    /// Reads what it prints until it and all that it left have closed their output, and waits for
    /// it. False if that has not come to pass before `end`; may be called again.
    bool finish(Clock::time_point end);

    /// Ends it and its process group by SIGKILL, and waits for it, unless it was waited for before.
    void kill();

    /// Its wait status, once it was waited for.
    const std::optional<int>& status() const { return waited; }

    /// What it has printed; the first 64 KiB.
    const std::string& text() const { return printed; }

private:
    bool waitFor(int options);

    int error = 0;
    pid_t number = 0;
    Descriptor output;
    std::optional<int> waited;
    std::string printed;
};

/// The first line of a text that is not empty, without white space around it.
std::string firstLine(const std::string& text);

/// How a process ended, from its wait status: "ended with status 64", "was killed by signal 9
/// (Killed)".
std::string howItEnded(int waitStatus);

} // namespace control
