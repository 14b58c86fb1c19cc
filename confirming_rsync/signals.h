// Signals as something to read, so that one wait covers them and the pipes.
#pragma once

#include "utilities/descriptors.h"

#include <csignal>

namespace confirming {

/// While it lives, SIGTERM, SIGINT, SIGHUP (unless the program was started with them ignored) and
/// SIGCHLD are held back and can be read here, and SIGPIPE is ignored. One object, in a program of
/// one thread.
class Signals {
public:
    Signals();
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;
    Signals(Signals&&) = delete;
    Signals& operator=(Signals&&) = delete;

    /// Readable when a signal has come. -1 if the system gave no such descriptor; then the signals
    /// have the effect that they had before.
    int descriptor() const { return descriptor_.get(); }

    /// The oldest signal that has come and was not taken yet; 0 if there is none. Does not wait.
    int take();

    /// In a child, between fork and execve: what the program itself was started with.
    void restore() const;

private:
    sigset_t before_{};
    void (*pipeBefore_)(int) = SIG_DFL;
    Descriptor descriptor_;
};

/// Ends the program by the signal, as if it had never been handled. Returns only if that fails.
void endBySignal(int signal);

} // namespace confirming
