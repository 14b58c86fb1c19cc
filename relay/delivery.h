// Delivering to the subscribers that the relay itself hands records to, each on a thread of its
// own.
//
// A new kind of subscriber is a class made from Delivery, which knows how to hand records over and
// which of them have arrived; its settings (settings.h, settings.cpp); and a line in
// makeDelivery. Positions, resets, waiting for records, and trying again are the same for all.
#pragma once

#include "relay/record_log.h"
#include "relay/run.h"
#include "relay/subscribers.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace relay {

/// One subscriber's way of getting records. Used by one thread. What throws std::runtime_error is
/// told, and a while later everything begins anew behind what was acknowledged.
class Delivery {
public:
    Delivery() = default;
    virtual ~Delivery() = default;
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    /// Begins behind that record, or begins anew: what is under way counts no more. Returns the
    /// last record that is under way already, from an earlier life; that one if there is none.
    virtual std::int64_t begin(std::int64_t acknowledged) = 0;

    /// How many records send wants to be offered at once.
    virtual std::size_t pageSize() const = 0;

    /// Goes on with what is under way, and takes over as many of the first of these records as
    /// there is room for. Returns how many. Called over and over, without records, too.
    virtual std::size_t send(const std::vector<Record>& records) = 0;

    /// The last record up to which all that were taken over have arrived; 0 if none has.
    virtual std::int64_t arrived() = 0;

    /// True if all that was taken over has arrived.
    virtual bool isIdle() const = 0;

    /// Waits for so long at most until send may have room again.
    virtual void waitForRoom(std::chrono::milliseconds limit) = 0;

    /// Why nothing arrives for now although nothing has just failed, in a sentence; else empty.
    virtual std::string problem() const { return {}; }

    /// It threw this. Returns how long to wait before everything begins anew.
    virtual std::chrono::milliseconds failed(const std::string& /*why*/) {
        return std::chrono::seconds(1);
    }
};

/// The delivery for that subscriber; nothing for one that fetches its records itself. The pattern
/// finds a record's run.
std::unique_ptr<Delivery> makeDelivery(RecordLog& log, const RunPattern& runs,
                                       const std::shared_ptr<Subscription>& to);

/// Delivers until it is told to end.
void deliver(RecordLog& log, Subscription& subscription, Delivery& delivery,
             const std::atomic<bool>& isEnding);

} // namespace relay
