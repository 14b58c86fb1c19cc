// Delivering by running a program for each record, or for batches of them.
#include "relay/command_delivery.h"

#include "relay/command_run.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <thread>
#include <utility>

namespace relay {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t mostOpen = 1000;          // batches behind one that keeps failing
constexpr std::size_t mostBytes = 512UL * 1024; // of paths: what a command line may have

/// Tries until the log takes it, or until it is told to end: then false.
template<class Work>
bool persistently(Subscription& subscription, const std::atomic<bool>& isEnding, Work work) {
    while (!isEnding) {
        try {
            work();
            return true;
        } catch (const DatabaseError& error) {
            subscription.countFailure(error.what());
            std::this_thread::sleep_for(1s);
        }
    }
    return false;
}

} // namespace

CommandDelivery::CommandDelivery(RecordLog& fromLog, std::shared_ptr<Subscription> toSubscription)
    : log(fromLog), subscription(std::move(toSubscription)) {
}

void CommandDelivery::retry(std::int64_t sequence) {
    const std::lock_guard<std::mutex> guard(mutex);
    if (std::find(retries.begin(), retries.end(), sequence) == retries.end()) {
        retries.push_back(sequence);
    }
}

void CommandDelivery::run(const std::atomic<bool>& isEnding) {
    while (!isEnding) {
        Batch batch;
        const bool isTaken =
            persistently(*subscription, isEnding, [this, &batch] { batch = take(); });
        if (!isTaken) {
            return;
        }
        if (batch.records.empty()) {
            std::int64_t after = 0;
            {
                const std::lock_guard<std::mutex> guard(mutex);
                after = cursor;
            }
            log.waitBehind(after, 500ms);
        } else if (deliver(batch, isEnding)) {
            persistently(*subscription, isEnding, [this, &batch] { finish(batch); });
        }
    }
}

CommandDelivery::Batch CommandDelivery::take() {
    std::unique_lock<std::mutex> guard(mutex);
    if (const std::int64_t current = subscription->generation(); generation != current) {
        generation = current;
        cursor = subscription->acknowledged();
        open.clear();
    }
    Batch batch;
    batch.generation = generation;
    if (!retries.empty()) {
        batch.isRetry = true;
        if (auto record = log.record(retries.front())) {
            batch.records.push_back(std::move(*record));
        }
        retries.pop_front();
        return batch;
    }
    if (open.size() >= mostOpen) {
        guard.unlock();
        std::this_thread::sleep_for(100ms);
        return batch;
    }
    Page page =
        subscription->next(cursor, static_cast<std::size_t>(subscription->settings.command.batch));
    std::size_t bytes = 0;
    for (Record& each : page.records) {
        bytes += each.path.size();
        if (bytes > mostBytes && !batch.records.empty()) {
            break;
        }
        batch.records.push_back(std::move(each));
    }
    if (batch.records.empty()) {
        cursor = page.seenTo;
    } else {
        cursor = batch.records.back().sequence;
        open[cursor] = false;
    }
    return batch;
}

std::string CommandDelivery::tryOnce(const std::vector<Record>& records,
                                     const std::atomic<bool>& isEnding) {
    subscription->countAttempt();
    std::string why;
    try {
        why = runCommand(subscription->settings.command, records, isEnding);
    } catch (const std::runtime_error& error) {
        why = error.what();
    }
    if (why.empty()) {
        subscription->countDelivered(static_cast<std::int64_t>(records.size()));
        subscription->clearFailure();
    } else if (!isEnding) {
        subscription->countFailure(why);
    }
    return why;
}

bool CommandDelivery::deliver(const Batch& batch, const std::atomic<bool>& isEnding) {
    const std::string why = tryOnce(batch.records, isEnding);
    if (why.empty() || batch.isRetry) {
        return why.empty(); // a dead letter stays one
    }
    // One of them may be bad: it must not take the others with it.
    const bool isSingle = batch.records.size() == 1;
    return std::all_of(batch.records.begin(), batch.records.end(), [&](const Record& each) {
        return deliverOne(batch, each, isSingle ? 1 : 0, why, isEnding);
    });
}

bool CommandDelivery::deliverOne(const Batch& batch, const Record& record, std::int64_t failures,
                                 std::string why, const std::atomic<bool>& isEnding) {
    while (failures < subscription->settings.command.attempts) {
        if (failures > 0 && !rest(failures, batch, isEnding)) {
            return false;
        }
        why = tryOnce({record}, isEnding);
        if (why.empty()) {
            return true;
        }
        ++failures;
    }
    if (isEnding) {
        return false; // the program was ended by us: that says nothing of the record
    }
    return persistently(*subscription, isEnding, [&] {
        log.addDeadLetter(subscription->settings.name, {record.sequence, failures, now(), why, {}});
    });
}

bool CommandDelivery::rest(std::int64_t failures, const Batch& batch,
                           const std::atomic<bool>& isEnding) {
    const CommandSettings& command = subscription->settings.command;
    std::int64_t seconds = command.backOff;
    for (std::int64_t n = 1; n < failures && seconds < command.backOffLimit; ++n) {
        seconds *= 2;
    }
    seconds = std::min(seconds, command.backOffLimit);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (isEnding || subscription->generation() != batch.generation) {
            return false;
        }
        std::this_thread::sleep_for(100ms);
    }
    return true;
}

void CommandDelivery::finish(const Batch& batch) {
    if (batch.isRetry) {
        log.removeDeadLetter(subscription->settings.name, batch.records.front().sequence);
        return;
    }
    const std::lock_guard<std::mutex> guard(mutex);
    if (batch.generation != generation) {
        return;
    }
    open[batch.records.back().sequence] = true;
    std::int64_t done = 0;
    auto first = open.begin();
    for (; first != open.end() && first->second; ++first) {
        done = first->first;
    }
    if (done > 0) {
        subscription->acknowledge(done, batch.generation);
        open.erase(open.begin(), first);
    }
}

} // namespace relay
