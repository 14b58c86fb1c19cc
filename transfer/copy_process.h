// Starting one copy process with its output in a pipe.
#pragma once

#include "utilities/descriptors.h"

#include <string>

#include <sys/types.h>

/// The pipe that carries a copy process's report. Both ends are 3 or above and closed on exec.
struct ReportPipe {
    Descriptor readEnd;
    Descriptor writeEnd;

    /// Creates the pipe. Returns false, errno set, when it can't be had.
    bool open();
};

/// Forks and runs the copy command, without a shell, in a session of its own: its standard output
/// and error are the pipe's write end, its standard input is closed, and it inherits no other
/// descriptor and no variable but those of copyEnvironment(). The command's first word is its
/// argument 0; what is executed is GLOBAL::rsyncCommand. Returns the child's process ID, or -1 with
/// errno set when it can't be forked. A program that can't be executed shows only as a child that
/// ends with status 1. The caller waits for the child and closes the pipe.
pid_t startCopyProcess(const std::string& command, const ReportPipe& report);
