// Delivering to a message broker. What all kinds of broker have in common stands here; each kind
// is a class of its own, made from this one, which connects, publishes and listens.
#pragma once

#include "relay/delivery.h"
#include "relay/run.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace relay {

/// One record as a broker gets it.
struct Message {
    std::uint64_t number; // among those over this connection, from 1 on
    std::string id;       // the same whenever this record is sent, and no other one's
    std::string key;      // UTF-8
    std::string body;
};

/// Sends records ahead; one has arrived when the broker has confirmed it and all before it.
/// Whatever fails, the connection is given up and, after a while that grows, all that was not
/// confirmed is sent again over a new one: at first a single record, then more and more.
class BrokerDelivery : public Delivery {
public:
    /// The pattern finds a record's run.
    BrokerDelivery(RunPattern ofRuns, std::shared_ptr<Subscription> toSubscription);

    std::int64_t begin(std::int64_t acknowledged) override;
    std::size_t pageSize() const override;
    std::size_t send(const std::vector<Record>& records) override;
    std::int64_t arrived() override { return confirmedTo; }
    bool isIdle() const override { return sent.empty(); }
    void waitForRoom(std::chrono::milliseconds limit) override;
    std::string problem() const override;
    std::chrono::milliseconds failed(const std::string& why) override;

protected:
    // Who implements these reports by std::runtime_error that the connection is of no use any more.
    virtual void connect() = 0;
    virtual void disconnect() = 0; // if it is connected, or half of it
    virtual void publish(const Message& message) = 0;
    /// Takes in what the broker says; returns after the first of it, or after that time.
    virtual void listen(std::chrono::milliseconds limit) = 0;

    /// The broker has confirmed the message of that number, or all up to it. Any number may come.
    void confirm(std::uint64_t number, bool withAllBefore);

    /// The configured password, read anew; `otherwise` if there is none. Throws.
    std::string password(const std::string& otherwise) const;

    const std::shared_ptr<Subscription> subscription;
    const BrokerSettings& settings;
    std::string obstacle; // why the broker takes nothing for now, although it is connected

private:
    struct Sent {
        std::int64_t sequence;
        bool isConfirmed;
    };

    const RunPattern runs;
    std::deque<Sent> sent;                          // from the first one that is not confirmed on
    std::uint64_t first = 1;                        // which one over this connection that is
    std::int64_t confirmedTo = 0;                   // 0 for none over this connection
    std::size_t window = 1;                         // how many may be sent ahead
    std::chrono::steady_clock::time_point lastMove; // of the confirmations
    std::string failure;                            // the last one
    int failures = 0;                               // since something was confirmed
};

std::unique_ptr<Delivery> makeAmqpDelivery(const RunPattern& runs,
                                           const std::shared_ptr<Subscription>& to);
std::unique_ptr<Delivery> makeKafkaDelivery(const RunPattern& runs,
                                            const std::shared_ptr<Subscription>& to);

} // namespace relay
