// Delivering to a program that reads a named pipe, in the daemon's own lines.
#pragma once

#include "relay/pipe_copy.h"
#include "relay/record_log.h"
#include "relay/subscribers.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace relay {

/// Fills one subscriber's pipe. A record is acknowledged when the reader has taken it out, which is
/// known from how much is still in the pipe. The pipe is held open for reading, too: a reader that
/// leaves ends nothing, and what it has not read waits for the next one. Used by one thread.
class PipeDelivery {
public:
    PipeDelivery(RecordLog& fromLog, std::shared_ptr<Subscription> toSubscription);

    /// Delivers until it is told to end. Failures are told and tried again.
    void run(const std::atomic<bool>& isEnding);

private:
    /// A record in the pipe, and where its line ends among all bytes that were written.
    struct Sent {
        std::int64_t sequence;
        std::size_t end;
    };

    void turn();
    void open();
    void findWhatWaits(const std::string& waiting);
    bool isInItsPlace() const;
    void acknowledgeWhatIsTaken();
    void send();
    bool writePending();

    RecordLog& log;
    const std::shared_ptr<Subscription> subscription;
    Descriptor pipe;
    std::int64_t cursor = 0; // the last record that was sent
    std::int64_t generation = 0;
    std::deque<Sent> sent;
    std::size_t written = 0; // bytes
    std::string pending;     // of the last record's line, for which the pipe has no room yet
    std::chrono::steady_clock::time_point lastAcknowledgement;
    std::chrono::steady_clock::time_point lastLook;
};

} // namespace relay
