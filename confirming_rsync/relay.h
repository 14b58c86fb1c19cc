// The one place where the program waits: for its child, its reader, signals and the clock.
#pragma once

#include "confirming_rsync/child.h"
#include "confirming_rsync/report_writer.h"
#include "confirming_rsync/signals.h"

#include <chrono>
#include <functional>
#include <string_view>

namespace confirming {

using Clock = std::chrono::steady_clock;

/// A point in time that never comes.
constexpr Clock::time_point never = Clock::time_point::max();

/// Takes what a child prints.
struct Sinks {
    std::function<void(std::string_view)> output;
    std::function<void(std::string_view)> errorOutput;
};

/// Moves bytes: from a child to the sinks, from the report to its reader; and keeps in mind whether
/// a signal has come. Each call waits for one round of events at most. The second signal that asks
/// the program to end ends it there and then; its child is told by its parent's death.
class Relay {
public:
    Relay(Signals& signals, ReportWriter& writer) : signals_(signals), writer_(writer) {}

    /// Waits until something happens or the time has come, and deals with it. A child is read from
    /// only while the report that waits for its reader is short, so that a slow reader slows it
    /// down; and some milliseconds after it was last read from, so that many lines come at once.
    void step(Child& child, const Sinks& sinks, Clock::time_point until);

    /// The same without a child.
    void step(Clock::time_point until);

    /// The first signal that asked the program to end; 0 as long as none did.
    int stopSignal() const { return stopSignal_; }

    /// False while so much waits for the reader that the child is not read from.
    bool isReading() const;

    bool readerIsGone() const { return writer_.hasGivenUp(); }

    /// True if some of what a child has printed could not be read. What it said is then no answer.
    bool hasMissedSomething() const { return missedSomething_; }

private:
    void step(Child* child, const Sinks* sinks, Clock::time_point until);
    std::size_t readSome(Descriptor& from, const std::function<void(std::string_view)>& sink);
    void takeSignals();

    Signals& signals_;
    ReportWriter& writer_;
    int stopSignal_ = 0;
    bool missedSomething_ = false;
    Clock::time_point restsUntil_; ///< until then a child is not read from
};

} // namespace confirming
