// Signals as something to read, so that one wait covers them and the pipes.
#include "confirming_rsync/signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

namespace confirming {

namespace {

bool isIgnored(int signal) {
    struct sigaction action {};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void setDisposition(int signal, void (*handler)(int), struct sigaction* before) {
    struct sigaction action {};
    action.sa_handler = handler;
    ::sigaction(signal, &action, before);
}

} // namespace

Signals::Signals() {
    // If it were ignored, the system would reap the child and forget its status.
    setDisposition(SIGCHLD, SIG_DFL, nullptr);
    setDisposition(SIGPIPE, SIG_IGN, &pipeBefore_);
    sigset_t taken;
    ::sigemptyset(&taken);
    ::sigaddset(&taken, SIGCHLD);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        // A signal that is held back is kept even while it is ignored.
        if (!isIgnored(signal)) {
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
    if (descriptor_.get() < 0 ||
        ::read(descriptor_.get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return 0;
    }
    return static_cast<int>(info.ssi_signo);
}

void Signals::restore() const {
    ::sigaction(SIGPIPE, &pipeBefore_, nullptr);
    ::sigprocmask(SIG_SETMASK, &before_, nullptr);
}

void endBySignal(int signal) {
    setDisposition(signal, SIG_DFL, nullptr);
    sigset_t one;
    ::sigemptyset(&one);
    ::sigaddset(&one, signal);
    ::raise(signal);
    ::sigprocmask(SIG_UNBLOCK, &one, nullptr);
}

} // namespace confirming
