// Delivering by running a program for each record, or for batches of them.
#pragma once

#include "relay/command_run.h"
#include "relay/delivery.h"

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

namespace relay {

/// Runs one subscriber's program. Batches begin in order; one has arrived when all before it were
/// dealt with. A batch that fails is tried again record by record, each at growing distances; a
/// record that failed as often as is allowed becomes a dead letter, and is dealt with. Dead letters
/// that are to be tried again go before all else; one stays a dead letter until that has succeeded.
class CommandDelivery : public Delivery {
public:
    CommandDelivery(RecordLog& fromLog, std::shared_ptr<Subscription> toSubscription);
    ~CommandDelivery() override;
    CommandDelivery(const CommandDelivery&) = delete;
    CommandDelivery& operator=(const CommandDelivery&) = delete;

    std::int64_t begin(std::int64_t acknowledged) override;
    std::size_t pageSize() const override;
    std::size_t send(const std::vector<Record>& records) override;
    std::int64_t arrived() override;
    bool isIdle() const override { return batches.empty() && others.empty(); }
    void waitForRoom(std::chrono::milliseconds limit) override;

private:
    using Clock = std::chrono::steady_clock;

    /// Records that a program is run for, until all are dealt with.
    struct Batch {
        std::vector<Record> records; // that are not dealt with yet
        std::int64_t last = 0;       // the number of what was the last of them
        bool isSplit = false;        // all at once have failed: now one by one
        std::int64_t failures = 0;   // of the first one alone
        Clock::time_point notBefore; // the next run
        std::unique_ptr<CommandRun> run = nullptr;
    };

    void start(Batch& batch);
    void conclude(Batch& batch);
    void concludeOther(Batch& batch);
    void startRetries();
    bool hasRoom() const;

    RecordLog& log;
    const std::shared_ptr<Subscription> subscription;
    const CommandSettings& command;
    std::list<Batch> batches; // by their records' numbers
    std::list<Batch> others;  // dead letters, and what was under way before everything began anew
    std::int64_t done = 0;    // the last record up to which all are dealt with
};

} // namespace relay
