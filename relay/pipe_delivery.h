// Delivering to a program that reads a named pipe, in the daemon's own lines.
#pragma once

#include "relay/delivery.h"
#include "relay/pipe_copy.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace relay {

/// Fills one subscriber's pipe. A record has arrived when the reader has taken it out, which is
/// known from how much is still in the pipe. The pipe is held open for reading, too: a reader that
/// leaves ends nothing, and what it has not read waits for the next one.
class PipeDelivery : public Delivery {
public:
    explicit PipeDelivery(std::shared_ptr<Subscription> toSubscription);

    std::int64_t begin(std::int64_t acknowledged) override;
    std::size_t pageSize() const override;
    std::size_t send(const std::vector<Record>& records) override;
    std::int64_t arrived() override;
    bool isIdle() const override { return sent.empty(); }
    void waitForRoom(std::chrono::milliseconds limit) override;

private:
    /// A record in the pipe, and where its line ends among all bytes that were written.
    struct Sent {
        std::int64_t sequence;
        std::size_t end;
    };

    void open();
    std::int64_t findWhatWaits(const std::string& waiting, std::int64_t acknowledged);
    bool isInItsPlace() const;
    [[noreturn]] void fail(const std::string& what);
    bool writePending();

    const std::shared_ptr<Subscription> subscription;
    Descriptor pipe;
    std::deque<Sent> sent;
    std::int64_t taken = 0;  // the last record that the reader has taken out
    std::size_t written = 0; // bytes
    std::string pending;     // of the last record's line, for which the pipe has no room yet
    std::chrono::steady_clock::time_point lastLook;
};

} // namespace relay
