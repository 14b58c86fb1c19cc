// Delivering to the subscribers that the relay itself hands records to, each on a thread of its
// own.
#include "relay/delivery.h"

#include "relay/broker_delivery.h"
#include "relay/command_delivery.h"
#include "relay/pipe_delivery.h"

#include <stdexcept>
#include <thread>

namespace relay {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto acknowledgementPause = 100ms; // each one is a flush of the disk
constexpr auto roomPause = 100ms;
constexpr auto arrivalPause = 20ms; // until what is under way is looked at again
constexpr auto idlePause = 500ms;
constexpr auto failurePause = 1s;

/// Where the delivery to one subscriber stands.
class Course {
public:
    Course(RecordLog& ofLog, Subscription& ofSubscription, Delivery& its)
        : log(ofLog), subscription(ofSubscription), delivery(its) {}

    void turn() {
        if (generation != subscription.generation()) {
            begin();
        }
        acknowledge(acknowledgementPause);
        if (page.records.empty()) {
            page = subscription.next(cursor, delivery.pageSize());
        }
        const std::size_t sent = delivery.send(page.records);
        page.records.erase(page.records.begin(),
                           page.records.begin() + static_cast<std::ptrdiff_t>(sent));
        // Behind the last of a page there may be some that are not wanted.
        cursor = page.records.empty() ? page.seenTo : page.records.front().sequence - 1;
        if (page.records.empty()) {
            const bool isAtRest = delivery.isIdle() && delivery.arrived() <= acknowledged;
            log.waitBehind(cursor, isAtRest ? idlePause : arrivalPause);
        } else if (sent == 0) {
            delivery.waitForRoom(roomPause);
        }
    }

    /// Notes what has arrived, but only so often.
    void acknowledge(std::chrono::milliseconds pause) {
        const std::int64_t last = delivery.arrived();
        if (last <= acknowledged || Clock::now() - noted < pause) {
            return;
        }
        subscription.acknowledge(last, generation);
        acknowledged = last;
        noted = Clock::now();
    }

    /// The same before all ends, or begins anew. What can't be noted comes again.
    void acknowledgeLast() {
        try {
            acknowledge(0ms);
        } catch (const std::runtime_error&) { // told when it happens next
        }
    }

    /// What was handed over and has not arrived is handed over again.
    void forget() { generation = -1; }

private:
    void begin() {
        const std::int64_t current = subscription.generation();
        const std::int64_t position = subscription.acknowledged();
        page = {};
        acknowledged = position;
        cursor = delivery.begin(position);
        generation = current;
    }

    RecordLog& log;
    Subscription& subscription;
    Delivery& delivery;
    std::int64_t generation = -1;  // of the subscription, when it began; -1: it has to begin
    Page page;                     // what is still to be handed over of what was read
    std::int64_t cursor = 0;       // the last record that was handed over, or is not wanted
    std::int64_t acknowledged = 0; // since it began
    Clock::time_point noted;       // when that was
};

} // namespace

std::unique_ptr<Delivery> makeDelivery(RecordLog& log, [[maybe_unused]] const RunPattern& runs,
                                       const std::shared_ptr<Subscription>& to) {
    switch (to->settings.type) {
    case SubscriberType::pipe:
        return std::make_unique<PipeDelivery>(to);
    case SubscriberType::command:
        return std::make_unique<CommandDelivery>(log, to);
#ifdef SKARN_RELAY_AMQP
    case SubscriberType::amqp:
        return makeAmqpDelivery(runs, to);
#endif
#ifdef SKARN_RELAY_KAFKA
    case SubscriberType::kafka:
        return makeKafkaDelivery(runs, to);
#endif
    default:
        return nullptr;
    }
}

void deliver(RecordLog& log, Subscription& subscription, Delivery& delivery,
             const std::atomic<bool>& isEnding) {
    Course course(log, subscription, delivery);
    std::string told; // the problem that is being told; empty if there is none
    while (!isEnding) {
        std::chrono::milliseconds pause = failurePause;
        try {
            course.turn();
            const std::string problem = delivery.problem();
            if (problem.empty() && !told.empty()) {
                subscription.clearFailure();
            } else if (problem != told) {
                subscription.countFailure(problem);
            }
            told = problem;
            continue;
        } catch (const DatabaseError& error) { // the log's: nothing is wrong with the delivery
            told = error.what();
        } catch (const std::runtime_error& error) {
            told = error.what();
            pause = delivery.failed(told);
            course.acknowledgeLast();
            course.forget();
        }
        subscription.countFailure(told);
        const auto end = Clock::now() + pause;
        while (!isEnding && Clock::now() < end) {
            std::this_thread::sleep_for(roomPause);
        }
    }
    course.acknowledgeLast();
}

} // namespace relay
