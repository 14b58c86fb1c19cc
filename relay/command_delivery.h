// Delivering by running a program for each record, or for batches of them.
#pragma once

#include "relay/record_log.h"
#include "relay/subscribers.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace relay {

/// Runs one subscriber's program. Batches begin in order; a position is acknowledged when all
/// before it were dealt with. A batch that fails is tried again record by record, each at growing
/// distances; a record that failed as often as is allowed becomes a dead letter, and is dealt with.
class CommandDelivery {
public:
    CommandDelivery(RecordLog& fromLog, std::shared_ptr<Subscription> toSubscription);

    /// Delivers until it is told to end: one batch at a time, so to be run by as many threads as
    /// there may be programs at once.
    void run(const std::atomic<bool>& isEnding);

    /// Tries a dead letter again, before all else; it stays one until that has succeeded.
    void retry(std::int64_t sequence);

private:
    struct Batch {
        std::vector<Record> records;
        std::int64_t generation = 0;
        bool isRetry = false; // a dead letter
    };

    Batch take();
    bool deliver(const Batch& batch, const std::atomic<bool>& isEnding);
    bool deliverOne(const Batch& batch, const Record& record, std::int64_t failures,
                    std::string why, const std::atomic<bool>& isEnding);
    std::string tryOnce(const std::vector<Record>& records, const std::atomic<bool>& isEnding);
    bool rest(std::int64_t failures, const Batch& batch, const std::atomic<bool>& isEnding);
    void finish(const Batch& batch);

    RecordLog& log;
    const std::shared_ptr<Subscription> subscription;
    std::mutex mutex; // guards all below
    std::deque<std::int64_t> retries;
    std::int64_t cursor = 0; // the last record that a batch was made of
    std::int64_t generation = -1;
    std::map<std::int64_t, bool> open; // batches by their last record; whether it was dealt with
};

} // namespace relay
