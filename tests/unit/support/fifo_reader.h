// The consumer's end of a named pipe.
#pragma once

#include <string>

/// Makes a named pipe.
void makeFifo(const std::string& path);

/// Has a named pipe open for reading, so that a writer's open does not wait.
class FifoReader {
public:
    explicit FifoReader(const std::string& path);
    ~FifoReader();
    FifoReader(const FifoReader&) = delete;
    FifoReader& operator=(const FifoReader&) = delete;

    /// Everything that came so far.
    const std::string& text();

    /// Closes the pipe.
    void close();

private:
    int descriptor;
    std::string received;
};
