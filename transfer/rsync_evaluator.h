// The thread that reads one copy process's report.
#pragma once

#include "log/log_file.h"
#include "transfer/thread.h"
#include "utilities/descriptors.h"

#include <string>

/// Reads the report of one copy process until its end, hands every confirmed file to the consumer
/// as it comes, and then logs what was lost, what else was printed and how many files were copied,
/// in one block. The worker that started the process creates it with the pipe's read end (after
/// closing its own copy of the write end), starts it, joins it and deletes it. Serves exactly one
/// copy process.
class RsyncEvaluator : public Thread {
public:
    /// Takes over `fd`, the read end of the report pipe. `targetDirectory` is the prefix of every
    /// hand-off record.
    RsyncEvaluator(int fd, const std::string& targetDirectory);

    /// Does not join the thread.
    ~RsyncEvaluator() override = default;

    /// The thread's body; ends when the copy process and everything that inherited its output have
    /// ended.
    void run() override;

private:
    Descriptor report; // its read end, closed by run
    LogFile log;
    std::string target;
};
