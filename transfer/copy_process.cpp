// The fork of a copy process, and what the child does before it becomes the copy program.
#include "transfer/copy_process.h"

#include "daemon/global.h"
#include "transfer/copy_command.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// Closes every descriptor from `first` on. Async-signal-safe.
void closeFrom(unsigned int first) {
    if (syscall(SYS_close_range, first, ~0U, 0U) == 0) {
        return;
    }
    // A kernel without that call: what the daemon keeps open is closed on exec anyway. Left are
    // descriptors that another thread held for the length of one write, and these are low numbers.
    constexpr int highestToClose = 1023;
    for (int descriptor = static_cast<int>(first); descriptor <= highestToClose; ++descriptor) {
        close(descriptor);
    }
}

/// Only async-signal-safe calls from here to execve: other threads may have held any lock at the
/// fork.
[[noreturn]] void becomeCopyProgram(const ExecVector& arguments, const ExecVector& environment,
                                    const ReportPipe& report) {
    setsid();
    close(report.readEnd.get());
    dup2(report.writeEnd.get(), STDOUT_FILENO);
    dup2(report.writeEnd.get(), STDERR_FILENO);
    close(STDIN_FILENO);
    closeFrom(STDERR_FILENO + 1);
    execve(GLOBAL::rsyncCommand.c_str(), arguments.get(), environment.get());
    _exit(1);
}

} // namespace

bool ReportPipe::open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    readEnd = Descriptor(moveAboveStandard(ends[0]));
    const int error = errno;
    writeEnd = Descriptor(moveAboveStandard(ends[1]));
    if (readEnd.get() < 0) {
        errno = error;
    }
    return readEnd.get() >= 0 && writeEnd.get() >= 0;
}

pid_t startCopyProcess(const std::string& command, const ReportPipe& report) {
    const ExecVector arguments(copyArguments(command));
    const ExecVector environment(copyEnvironment());
    const pid_t child = fork();
    if (child == 0) {
        becomeCopyProgram(arguments, environment, report);
    }
    return child;
}
