// The other ends of the pipes that the daemon reads and writes.
//
// They work in one of two ways. Still: a pipe is filled before the clock runs and emptied after it,
// so that nothing competes with what is measured, and no time goes into waking somebody up. That
// is the strict comparison, since waking costs the daemon's code and its floor the same. Busy: a
// thread fills or empties the pipe meanwhile, as a copy process and a consumer do.
#pragma once

#include "utilities/descriptors.h"

#include <string>
#include <string_view>
#include <thread>

enum class Peer { still, busy };

/// The most that a pipe takes while nobody reads it.
constexpr std::size_t pipeCapacity = 1 << 20;

/// A pipe that somebody writes a text into and closes. Ends the program if it can't be had.
class FedPipe {
public:
    /// A still pipe must be able to hold the whole text, which has to outlive a busy one.
    FedPipe(std::string_view text, Peer peer);

    /// Waits until all was written.
    ~FedPipe();
    FedPipe(const FedPipe&) = delete;
    FedPipe& operator=(const FedPipe&) = delete;

    /// The end to read from, which the caller closes.
    int takeReadEnd() { return readEnd.release(); }

private:
    Descriptor readEnd;
    std::thread writer;
};

/// A named pipe that somebody has open for reading. Ends the program if it can't be had.
class DrainedFifo {
public:
    DrainedFifo(std::string path, Peer peer);

    /// Takes the named pipe away.
    ~DrainedFifo();
    DrainedFifo(const DrainedFifo&) = delete;
    DrainedFifo& operator=(const DrainedFifo&) = delete;

    const std::string& path() const { return fifoPath; }

    /// Reads what a writer has left in it, and returns how many bytes came since the last call.
    /// No writer may have it open.
    std::size_t drain();

private:
    std::size_t readAll() const;

    std::string fifoPath;
    Peer kind;
    Descriptor readEnd;
    Descriptor writeEnd; // a busy one's, so that its reader sees no end between two writers
    std::thread reader;
    std::size_t receivedByThread = 0; // its own until it has ended
};
