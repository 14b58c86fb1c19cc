// One stock rsync, as a child whose output and error output are read.
#pragma once

#include "confirming_rsync/signals.h"
#include "utilities/descriptors.h"

#include <string>
#include <vector>

#include <sys/types.h>

namespace confirming {

/// The program's exit status if stock rsync can't be started.
constexpr int notStarted = 127;

/// What to start: the absolute path of the program (not searched for), its arguments without its
/// own name, and its environment as "NAME=value".
struct ProgramCall {
    std::string path;
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
};

/// A child process in a process group of its own, with nothing open but its standard input, output
/// and error output. It gets SIGTERM when the program that started it ends, however that ends. Does
/// not read, wait or decide by itself; whoever owns it does.
class Child {
public:
    /// Starts the program; `input` becomes its standard input.
    Child(const ProgramCall& call, const Descriptor& input, const Signals& signals);

    /// Ends what is left of the child and of what it has started.
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    Child(Child&&) = delete;
    Child& operator=(Child&&) = delete;

    /// Empty if it was started, else what to say of it: "cannot start PATH: REASON".
    const std::string& failure() const { return failure_; }

    /// Its process group, in which what it starts is, too.
    pid_t group() const { return pid_; }

    /// Read ends of the child's output and error output; the reader closes them at their end.
    Descriptor output;
    Descriptor errorOutput;

    /// Sends a signal to the child itself.
    void signal(int number) const;

    /// Ends the child and what it has started, with SIGKILL.
    void kill() const;

    /// Looks whether the child has ended, without waiting. True from then on.
    bool hasEnded();

    /// How it ended, as a shell would say: its exit status, or 128 and the number of the signal
    /// that ended it. As if by SIGKILL while hasEnded() is not true.
    int exitStatus() const { return exitStatus_; }

private:
    pid_t pid_ = -1;
    std::string failure_;
    bool ended_ = false;
    int exitStatus_ = 128 + SIGKILL;
};

/// Pointers to the strings, ended by a null pointer, as execve takes them. They point into
/// `strings`.
std::vector<char*> pointersTo(std::vector<std::string>& strings);

} // namespace confirming
