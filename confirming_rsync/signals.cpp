// Signals as something to read, so that one wait covers them and the pipes.
#include "confirming_rsync/signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

namespace confirming {

Signals::Signals() {
    // If it were ignored, the system would reap the child and forget its status.
    std::signal(SIGCHLD, SIG_DFL);
    pipeBefore_ = std::signal(SIGPIPE, SIG_IGN);
    sigset_t taken;
    ::sigemptyset(&taken);
    ::sigaddset(&taken, SIGCHLD);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        // A signal that is held back is kept even while it is ignored.
        struct sigaction before {};
        if (::sigaction(signal, nullptr, &before) != 0 || before.sa_handler != SIG_IGN) {
            ::sigaddset(&taken, signal);
        }
    }
    ::sigprocmask(SIG_BLOCK, &taken, &before_);
    descriptor_ = Descriptor(::signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!descriptor_) {
        // Better to be ended at once than not at all.
        ::sigprocmask(SIG_SETMASK, &before_, nullptr);
    }
}

Signals::~Signals() {
    restore();
}

int Signals::take() {
    struct signalfd_siginfo info {};
    const ssize_t count = ::read(descriptor_.get(), &info, sizeof info);
    return count == static_cast<ssize_t>(sizeof info) ? static_cast<int>(info.ssi_signo) : 0;
}

void Signals::restore() const {
    std::signal(SIGPIPE, pipeBefore_);
    ::sigprocmask(SIG_SETMASK, &before_, nullptr);
}

void endBySignal(int signal) {
    std::signal(signal, SIG_DFL);
    sigset_t one;
    ::sigemptyset(&one);
    ::sigaddset(&one, signal);
    ::raise(signal);
    ::sigprocmask(SIG_UNBLOCK, &one, nullptr);
}

} // namespace confirming
