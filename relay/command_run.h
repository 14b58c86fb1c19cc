// One run of a subscriber's program.
#pragma once

#include "relay/record.h"
#include "relay/settings.h"
#include "utilities/descriptors.h"

#include <chrono>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/types.h>

namespace relay {

/// A program that was started for some records. It has no descriptor of the relay's, and dies with
/// the thread that has started it. Used by that thread alone.
class CommandRun {
public:
    /// Starts it. That it can't be started is a failure like others.
    CommandRun(const CommandSettings& ofCommand, const std::vector<Record>& records);

    /// Ends it, if it has not ended, with all that it has started.
    ~CommandRun();
    CommandRun(const CommandRun&) = delete;
    CommandRun& operator=(const CommandRun&) = delete;

    /// True once it has ended. To be called over and over: it is what ends a program whose time is
    /// over.
    bool hasEnded();

    /// What went wrong in one sentence, with the end of what it said on standard error; empty if
    /// its exit status was 0. Once it has ended.
    const std::string& problem() const { return sentence; }

    /// Asks it to end, unless that was done; hasEnded sees to it that it does.
    void end();

    /// Adds what is to be waited for until it needs to be looked at.
    void addTo(std::vector<pollfd>& polled) const;

private:
    void start(const std::vector<Record>& records);
    void signal();
    void readComplaints();
    std::string outcome(int status) const;

    const CommandSettings& command;
    std::string sentence;
    pid_t process = -1; // of the program and of its group; -1: it has ended, or never began
    Descriptor handle;  // can be read from when it has ended
    Descriptor complaintsOut;
    std::string complaints;
    int nextSignal;
    std::chrono::steady_clock::time_point signalTime; // when it gets that one
    bool isTimedOut = false;
};

} // namespace relay
