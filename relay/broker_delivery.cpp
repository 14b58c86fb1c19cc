// Delivering to a message broker. What all kinds of broker have in common stands here; each kind
// is a class of its own, made from this one, which connects, publishes and listens.
#include "relay/broker_delivery.h"

#include "relay/json.h"
#include "relay/messages.h"
#include "shares/files.h"

#include <algorithm>
#include <cerrno>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>

namespace relay {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::size_t largestWindow = 500;
constexpr auto silenceLimit = 10s; // without a confirmation, before that is told

Message messageOf(const BrokerSettings& settings, const RunPattern& runs, const Record& record) {
    Message message{};
    // With the time: numbers begin anew where somebody has deleted the log.
    message.id = settings.host + ":" + std::to_string(record.sequence) + ":" +
                 std::to_string(record.arrival);
    message.key = filledKey(settings.key, {{"detector", percentEncoded(record.detector)},
                                           {"host", settings.host},
                                           {"kind", std::string(nameOf(record.kind))},
                                           {"run", runOf(record, runs)}});
    appendJson(record, message.body);
    return message;
}

} // namespace

BrokerDelivery::BrokerDelivery(RunPattern ofRuns, std::shared_ptr<Subscription> toSubscription)
    : subscription(std::move(toSubscription)), settings(subscription->settings.broker),
      runs(std::move(ofRuns)) {
}

std::int64_t BrokerDelivery::begin(std::int64_t acknowledged) {
    obstacle.clear();
    sent.clear();
    first = 1;
    confirmedTo = 0;
    window = 1;
    disconnect();
    subscription->countAttempt();
    connect();
    return acknowledged;
}

std::size_t BrokerDelivery::pageSize() const {
    return largestWindow;
}

std::size_t BrokerDelivery::send(const std::vector<Record>& records) {
    listen(0ms); // also what keeps an idle connection alive
    if (sent.empty()) {
        lastMove = Clock::now();
    }
    // While the broker takes nothing, one record on its way shows when it does again.
    const std::size_t most = obstacle.empty() ? window : 1;
    std::size_t count = 0;
    for (; count < records.size() && sent.size() < most; ++count) {
        sent.push_back({records[count].sequence, false});
        Message message = messageOf(settings, runs, records[count]);
        message.number = first + sent.size() - 1;
        publish(message);
    }
    return count;
}

void BrokerDelivery::waitForRoom(std::chrono::milliseconds limit) {
    listen(limit);
}

void BrokerDelivery::confirm(std::uint64_t number, bool withAllBefore) {
    const std::uint64_t end = std::min(number + 1, first + sent.size());
    for (std::uint64_t n = withAllBefore ? first : std::max(number, first); n < end; ++n) {
        sent[n - first].isConfirmed = true;
    }
    for (; !sent.empty() && sent.front().isConfirmed; ++first) {
        confirmedTo = sent.front().sequence;
        sent.pop_front();
        subscription->countDelivered(1);
        window = std::min(window + 1, largestWindow);
        lastMove = Clock::now();
        failures = 0;
    }
}

std::string BrokerDelivery::problem() const {
    if (!obstacle.empty()) {
        return obstacle;
    }
    if (!sent.empty() && Clock::now() - lastMove > silenceLimit) {
        return "the broker has confirmed nothing for 10 seconds";
    }
    return sent.empty() || confirmedTo > 0 ? std::string() : failure;
}

std::chrono::milliseconds BrokerDelivery::failed(const std::string& why) {
    disconnect();
    failure = why;
    std::int64_t seconds = settings.backOff;
    for (int n = 0; n < failures && seconds < settings.backOffLimit; ++n) {
        seconds *= 2;
    }
    ++failures;
    // Not exactly: several relays are not to come back to their broker all at once.
    std::uniform_int_distribution<std::int64_t> part(500, 1000);
    std::random_device random;
    return std::chrono::milliseconds(part(random) * std::min(seconds, settings.backOffLimit));
}

std::string BrokerDelivery::password(const std::string& otherwise) const {
    if (settings.passwordFile.empty()) {
        return otherwise;
    }
    const auto text = confirming::readTextFile(settings.passwordFile);
    if (!text) {
        throw std::runtime_error("the password cannot be read from " + settings.passwordFile +
                                 ": " + systemError(errno));
    }
    return text->substr(0, text->find('\n'));
}

} // namespace relay
