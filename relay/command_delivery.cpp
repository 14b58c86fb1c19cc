// Delivering by running a program for each record, or for batches of them.
#include "relay/command_delivery.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace relay {

namespace {

constexpr std::size_t mostOpen = 1000;          // batches behind one that keeps failing
constexpr std::size_t mostBytes = 512UL * 1024; // of paths: what a command line may have

std::chrono::seconds backOff(const CommandSettings& command, std::int64_t failures) {
    std::int64_t seconds = command.backOff;
    for (std::int64_t n = 1; n < failures && seconds < command.backOffLimit; ++n) {
        seconds *= 2;
    }
    return std::chrono::seconds(std::min(seconds, command.backOffLimit));
}

} // namespace

CommandDelivery::CommandDelivery(RecordLog& fromLog, std::shared_ptr<Subscription> toSubscription)
    : log(fromLog), subscription(std::move(toSubscription)),
      command(subscription->settings.command) {
}

CommandDelivery::~CommandDelivery() {
    // All at the same time: then each one's own end waits for it.
    for (std::list<Batch>* const list : {&batches, &others}) {
        for (const Batch& each : *list) {
            if (each.run) {
                each.run->end();
            }
        }
    }
}

std::int64_t CommandDelivery::begin(std::int64_t acknowledged) {
    // What runs may come to its end, but says nothing any more.
    for (Batch& each : batches) {
        each.records.clear();
    }
    others.splice(others.end(), batches);
    done = 0;
    return acknowledged;
}

std::size_t CommandDelivery::pageSize() const {
    return static_cast<std::size_t>(command.batch);
}

bool CommandDelivery::hasRoom() const {
    const auto busy = std::count_if(batches.begin(), batches.end(),
                                    [](const Batch& each) { return !each.records.empty(); });
    return busy + static_cast<std::int64_t>(others.size()) < command.concurrency &&
           batches.size() < mostOpen;
}

std::size_t CommandDelivery::send(const std::vector<Record>& records) {
    for (Batch& each : batches) {
        if (!each.run && !each.records.empty() && Clock::now() >= each.notBefore) {
            start(each);
        }
    }
    startRetries();
    if (records.empty() || !hasRoom()) {
        return 0;
    }
    Batch& batch = batches.emplace_back();
    std::size_t bytes = 0;
    for (const Record& each : records) {
        bytes += each.path.size();
        if (bytes > mostBytes && !batch.records.empty()) {
            break;
        }
        batch.records.push_back(each);
    }
    batch.last = batch.records.back().sequence;
    start(batch);
    return batch.records.size();
}

void CommandDelivery::startRetries() {
    while (hasRoom()) {
        const auto sequence = subscription->takeRetry();
        if (!sequence) {
            return;
        }
        if (auto record = log.record(*sequence)) {
            others.emplace_back().records.push_back(std::move(*record));
            start(others.back());
        }
    }
}

void CommandDelivery::start(Batch& batch) {
    subscription->countAttempt();
    batch.run = std::make_unique<CommandRun>(
        command, batch.isSplit ? std::vector<Record>{batch.records.front()} : batch.records);
}

std::int64_t CommandDelivery::arrived() {
    const auto hasEnded = [](const Batch& each) { return each.run && each.run->hasEnded(); };
    for (Batch& each : batches) {
        if (hasEnded(each)) {
            conclude(each);
        }
    }
    for (auto each = others.begin(); each != others.end();) {
        if (hasEnded(*each)) {
            concludeOther(*each);
        }
        each = each->run ? std::next(each) : others.erase(each);
    }
    for (; !batches.empty() && batches.front().records.empty(); batches.pop_front()) {
        done = batches.front().last;
    }
    return done;
}

void CommandDelivery::conclude(Batch& batch) {
    const std::string why = batch.run->problem();
    const auto tried = batch.isSplit ? batch.records.begin() + 1 : batch.records.end();
    if (why.empty()) {
        subscription->countDelivered(tried - batch.records.begin());
        subscription->clearFailure();
        batch.records.erase(batch.records.begin(), tried);
        batch.failures = 0;
    } else if (!batch.isSplit && batch.records.size() > 1) {
        batch.isSplit = true; // one of them may be bad: it must not take the others with it
        subscription->countFailure(why);
    } else {
        const std::int64_t failures = batch.failures + 1;
        if (failures >= command.attempts) {
            log.addDeadLetter(subscription->settings.name,
                              {batch.records.front().sequence, failures, now(), why, {}});
            batch.records.erase(batch.records.begin());
            batch.failures = 0;
        } else {
            batch.failures = failures;
            batch.notBefore = Clock::now() + backOff(command, failures);
        }
        subscription->countFailure(why);
    }
    batch.run.reset();
}

/// Forgets it; a dead letter that has succeeded is one no more.
void CommandDelivery::concludeOther(Batch& batch) {
    const std::string& why = batch.run->problem();
    if (!batch.records.empty() && why.empty()) {
        log.removeDeadLetter(subscription->settings.name, batch.records.front().sequence);
        subscription->countDelivered(1);
        subscription->clearFailure();
    } else if (!batch.records.empty()) {
        subscription->countFailure(why);
    }
    batch.run.reset();
}

void CommandDelivery::waitForRoom(std::chrono::milliseconds limit) {
    std::vector<pollfd> polled;
    for (const std::list<Batch>* const list : {&batches, &others}) {
        for (const Batch& each : *list) {
            if (each.run) {
                each.run->addTo(polled);
            }
        }
    }
    ::poll(polled.data(), polled.size(), static_cast<int>(limit.count()));
}

} // namespace relay
