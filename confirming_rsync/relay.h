// The one place where the program waits: for its child, its reader, signals and the clock.
#pragma once

#include "confirming_rsync/child.h"
#include "confirming_rsync/signals.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <unistd.h>

namespace confirming {

using Clock = std::chrono::steady_clock;

/// A point in time that never comes.
constexpr Clock::time_point never = Clock::time_point::max();

/// Holds report text until the reader takes it, in twice the memory at most. Never waits: whoever
/// owns it polls the descriptor and calls write() when there is room. SIGPIPE has to be ignored.
class ReportWriter {
public:
    /// Does not own the descriptor, whose flags stay as they are.
    explicit ReportWriter(int descriptor) : descriptor_(descriptor) {}

    int descriptor() const { return descriptor_; }

    void add(std::string_view text);

    /// Bytes that wait.
    std::size_t pending() const { return text_.size() - written_; }

    /// Bytes that the reader's pipe has taken so far.
    std::uint64_t written() const { return total_; }

    /// Writes the next bytes: whole lines, as many as a pipe takes at once, so that an end of the
    /// program never leaves half a line there. A line that is longer than that goes in pieces. To
    /// be called when the descriptor is ready for writing, else it may wait for the reader.
    void write();

    /// The reader is gone: everything that waits or comes is thrown away.
    void giveUp();
    bool hasGivenUp() const { return givenUp_; }

private:
    int descriptor_;
    std::string text_;
    std::size_t written_ = 0; // of text_
    std::uint64_t total_ = 0;
    bool givenUp_ = false;
};

/// Takes what a child prints.
struct Sinks {
    std::function<void(std::string_view)> output;
    std::function<void(std::string_view)> errorOutput;
};

/// Moves bytes: from a child to the sinks, from the report to its reader; and keeps in mind whether
/// a signal has come. One object, which holds the signals back while it lives.
class Relay {
public:
    /// A child is left alone for at most `longestRest` after it was read from.
    explicit Relay(std::chrono::milliseconds longestRest = std::chrono::milliseconds(20))
        : longestRest_(longestRest) {}

    /// Waits until something happens or the time has come, and deals with it: with one round of
    /// events at most. A child is read from only while the report that waits for its reader is
    /// short, so that a slow reader slows it down; and some milliseconds after it was last read
    /// from, so that many lines come at once. The second signal that asks the program to end ends
    /// it there and then; its child is told by its parent's death.
    void step(Clock::time_point until, Child* child = nullptr, const Sinks& sinks = {});

    /// What the program is to end by: the first signal that asked it to, or SIGPIPE once the reader
    /// is gone; 0 as long as it is to go on.
    int endingSignal() const { return stopSignal_ == 0 && readerIsGone() ? SIGPIPE : stopSignal_; }

    /// When a child was last heard of, or not read from because so much waits for the reader.
    Clock::time_point lastLife() const { return lastLife_; }

    bool readerIsGone() const { return report.hasGivenUp(); }

    /// True if some of what a child has printed could not be read. What it said is then no answer.
    bool hasMissedSomething() const { return missedSomething_; }

    Signals signals;
    ReportWriter report{STDOUT_FILENO};

private:
    void readSome(Descriptor& from, const std::function<void(std::string_view)>& sink);
    void takeSignals();

    int stopSignal_ = 0;
    bool missedSomething_ = false;
    const std::chrono::milliseconds longestRest_;
    Clock::time_point restsUntil_; ///< until then a child is not read from
    Clock::time_point lastLife_;
};

} // namespace confirming
