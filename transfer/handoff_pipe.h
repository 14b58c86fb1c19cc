// Telling the consumer: the named pipe and the lines that go into it.
#pragma once

#include <string>
#include <string_view>

class LogFile;

/// One copy process's way to the consumer: opened before its report is read, given one record for
/// each confirmed file, closed at the end of the report. The pipe's path is
/// GLOBAL::pathToVantrelFifo. Each record is written with one call, so that up to PIPE_BUF bytes
/// the consumer receives it whole; no lock is taken. Failures are logged and survived, but a pipe
/// whose reader has gone ends the daemon by SIGPIPE. Used by one thread.
class HandoffPipe {
public:
    /// Opens nothing yet. `evaluatorLog` must outlive this object.
    HandoffPipe(LogFile& evaluatorLog, const std::string& targetDirectory);
    ~HandoffPipe() { close(); }
    HandoffPipe(const HandoffPipe&) = delete;
    HandoffPipe& operator=(const HandoffPipe&) = delete;

    /// Opens the pipe for writing and waits until the consumer has it open for reading. When it is
    /// absent, that is logged and every later record is dropped. While no descriptor is to be had,
    /// it waits for one. When it can't be opened for another reason, every later record fails.
    void open();

    /// Writes the record of one file: the target directory, "/", the name and a line feed.
    void pass(std::string_view name);

    /// Closes the pipe, if there is one.
    void close();

private:
    int openOnce(const char* path);

    LogFile& log;
    std::string record;           // begins with what all records begin with
    const std::size_t sharedSize; // of that beginning
    int pipeDescriptor = 0;       // 0 stands for no pipe; a real one is always above 2
};

/// Writes the usershift line with the configured owner into the pipe, if it is there and being
/// read, without waiting. The descriptor stays open for the life of the daemon. Nothing is logged.
/// To be called once, before any worker runs.
void sendUsershift();
