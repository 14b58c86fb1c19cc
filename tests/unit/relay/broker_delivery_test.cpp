// What all deliveries to message brokers have in common, with a broker that does what a test says.
#include "relay/broker_delivery.h"
#include "tests/unit/relay/scratch.h"

#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace relay {

namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Ge;
using testing::Le;

/// A broker that keeps what it gets.
class Broker : public BrokerDelivery {
public:
    using BrokerDelivery::BrokerDelivery;
    using BrokerDelivery::confirm;
    using BrokerDelivery::obstacle;
    using BrokerDelivery::password;

    int connections = 0;
    std::vector<Message> messages; // over this connection
    std::string refusal;           // thrown when it is listened to

protected:
    void connect() override {
        ++connections;
        messages.clear();
    }
    void disconnect() override {}
    void publish(const Message& message) override { messages.push_back(message); }
    void listen(std::chrono::milliseconds /*limit*/) override {
        if (!refusal.empty()) {
            throw std::runtime_error(refusal);
        }
    }
};

std::vector<Record> recordsFrom(std::int64_t first, std::int64_t count) {
    std::vector<Record> records;
    for (std::int64_t n = first; n < first + count; ++n) {
        Record record;
        record.sequence = n;
        record.path = "/d/./f";
        record.arrival = 1000 + n;
        records.push_back(record);
    }
    return records;
}

class BrokerDeliveryTest : public testing::Test {
protected:
    BrokerDeliveryTest() { broker.begin(0); }

    static SubscriberSettings settings() {
        SubscriberSettings made;
        made.name = "broker";
        made.broker.host = "host1";
        made.broker.backOff = 1;
        made.broker.backOffLimit = 4;
        return made;
    }

    Scratch scratch;
    RecordLog log{scratch.path("log")};
    std::shared_ptr<Subscription> subscription =
        std::make_shared<Subscription>(log, settings(), Position());
    Broker broker{RunPattern(""), subscription};
};

TEST_F(BrokerDeliveryTest, SendsOneAtFirstAndThenMoreAndMore) {
    EXPECT_EQ(broker.send(recordsFrom(1, 9)), 1U);
    EXPECT_EQ(broker.send(recordsFrom(2, 8)), 0U);
    broker.confirm(1, false);
    EXPECT_EQ(broker.send(recordsFrom(2, 8)), 2U);
    broker.confirm(3, true);
    EXPECT_EQ(broker.send(recordsFrom(4, 6)), 4U);
    EXPECT_EQ(broker.connections, 1);
}

TEST_F(BrokerDeliveryTest, ARecordHasArrivedWhenAllBeforeItHave) {
    for (std::int64_t n = 1; n <= 3; ++n) {
        ASSERT_EQ(broker.send(recordsFrom(n * 10, 1)), 1U);
        broker.confirm(static_cast<std::uint64_t>(n), false);
    }
    ASSERT_EQ(broker.send(recordsFrom(40, 3)), 3U);
    broker.confirm(6, false);
    broker.confirm(5, false);
    EXPECT_EQ(broker.arrived(), 30);
    EXPECT_FALSE(broker.isIdle());
    broker.confirm(4, false);
    EXPECT_EQ(broker.arrived(), 42);
    EXPECT_TRUE(broker.isIdle());
    EXPECT_EQ(subscription->figures().delivered, 6);
}

TEST_F(BrokerDeliveryTest, ConfirmationsOfWhatWasNotSentAreNothing) {
    broker.confirm(1, true);
    broker.confirm(99, false);
    ASSERT_EQ(broker.send(recordsFrom(1, 1)), 1U);
    broker.confirm(0, true);
    EXPECT_EQ(broker.arrived(), 0);
    broker.confirm(99, true);
    EXPECT_EQ(broker.arrived(), 1);
    broker.confirm(1, false);
    EXPECT_EQ(broker.arrived(), 1);
    broker.confirm(~std::uint64_t{0}, true);
    EXPECT_TRUE(broker.isIdle());
}

TEST_F(BrokerDeliveryTest, SendsAllAgainAfterAFailureAndUnderTheSameIds) {
    broker.send(recordsFrom(1, 1));
    broker.confirm(1, false);
    broker.send(recordsFrom(2, 2));
    broker.refusal = "no";
    EXPECT_THROW(broker.send({}), std::runtime_error);
    broker.failed("no");
    broker.refusal.clear();
    EXPECT_EQ(broker.begin(1), 1);
    EXPECT_TRUE(broker.isIdle());
    EXPECT_EQ(broker.arrived(), 0);
    ASSERT_EQ(broker.send(recordsFrom(2, 2)), 1U);
    EXPECT_EQ(broker.connections, 2);
    EXPECT_EQ(broker.messages.at(0).id, "host1:2:1002");
}

TEST_F(BrokerDeliveryTest, RestsLongerAfterEachFailureUntilSomethingIsConfirmed) {
    EXPECT_THAT(broker.failed("no"), AllOf(Ge(500ms), Le(1000ms)));
    EXPECT_THAT(broker.failed("no"), AllOf(Ge(1000ms), Le(2000ms)));
    EXPECT_THAT(broker.failed("no"), AllOf(Ge(2000ms), Le(4000ms)));
    EXPECT_THAT(broker.failed("no"), AllOf(Ge(2000ms), Le(4000ms)));
    broker.begin(0);
    broker.send(recordsFrom(1, 1));
    broker.confirm(1, false);
    EXPECT_THAT(broker.failed("no"), AllOf(Ge(500ms), Le(1000ms)));
}

TEST_F(BrokerDeliveryTest, AFailureIsAProblemUntilSomethingIsConfirmed) {
    EXPECT_EQ(broker.problem(), "");
    broker.failed("the queue is full");
    broker.begin(0);
    broker.send(recordsFrom(1, 1));
    EXPECT_EQ(broker.problem(), "the queue is full");
    broker.confirm(1, false);
    EXPECT_EQ(broker.problem(), "");
}

TEST_F(BrokerDeliveryTest, WhileTheBrokerTakesNothingOneRecordIsOnItsWay) {
    broker.send(recordsFrom(1, 1));
    broker.confirm(1, false);
    broker.obstacle = "low on disk";
    EXPECT_EQ(broker.problem(), "low on disk");
    EXPECT_EQ(broker.send(recordsFrom(2, 2)), 1U);
    EXPECT_EQ(broker.send(recordsFrom(3, 1)), 0U);
}

TEST_F(BrokerDeliveryTest, TheBodyIsTheRecordAsJson) {
    broker.send(recordsFrom(1, 1));
    EXPECT_THAT(broker.messages.at(0).body, testing::HasSubstr("\"path\":\"/d/./f\""));
}

TEST_F(BrokerDeliveryTest, ThePasswordIsTheFirstLineOfItsFile) {
    EXPECT_EQ(broker.password("guest"), "guest");
    SubscriberSettings changed = settings();
    changed.broker.passwordFile = scratch.file("password", "secret\nand more\n");
    Broker other(RunPattern(""), std::make_shared<Subscription>(log, changed, Position()));
    EXPECT_EQ(other.password("guest"), "secret");
    std::filesystem::remove(changed.broker.passwordFile);
    EXPECT_THROW(other.password("guest"), std::runtime_error);
}

TEST_F(BrokerDeliveryTest, TheKeyIsTheTemplateFilledIn) {
    SubscriberSettings changed = settings();
    changed.broker.key = "{host}.{detector}.{run}.{kind}.{detector}";
    Broker other(RunPattern(""), std::make_shared<Subscription>(log, changed, Position()));
    std::vector<Record> records = recordsFrom(1, 1);
    records.front().detector = "a b{kind}\xff";
    other.send(records);
    EXPECT_EQ(other.messages.at(0).key, "host1.a%20b%7Bkind%7D%FF.-.file.a%20b%7Bkind%7D%FF");
}

/// Keys that are made of {run} alone.
class RunKeyTest : public BrokerDeliveryTest {
protected:
    static SubscriberSettings keyedByRun() {
        SubscriberSettings made = settings();
        made.broker.key = "{run}";
        return made;
    }

    std::string keyOf(Kind kind, const std::string& path) {
        std::vector<Record> records = recordsFrom(1, 1);
        records.front().kind = kind;
        records.front().path = path;
        Broker keyed(RunPattern("/(?P<run>[^/]*)/[^/]*_(?P<index>[0-9]+)"),
                     std::make_shared<Subscription>(log, keyedByRun(), Position()));
        keyed.send(records);
        return keyed.messages.at(0).key;
    }
};

TEST_F(RunKeyTest, AFileHasTheRunThatItsPathNames) {
    EXPECT_EQ(keyOf(Kind::file, "/d/./scan7/img_1"), "scan7");
    EXPECT_EQ(keyOf(Kind::file, "/d/./scan {run}\xff/img_1"), "scan%20%7Brun%7D%FF");
    EXPECT_EQ(keyOf(Kind::file, "/d/./scan7/notes"), "-");
    EXPECT_EQ(keyOf(Kind::usershift, "usershift: /d/./scan7/img_1"), "-");
}

TEST_F(RunKeyTest, WhatIsToldOfARunHasTheKeyOfItsFiles) {
    EXPECT_EQ(keyOf(Kind::run, R"(run: {"event":"ended","run":"scan 7"})"), "scan%207");
    EXPECT_EQ(keyOf(Kind::run, R"(run: {"event":"ended","run_percent":"scan%20%FF"})"),
              "scan%20%FF");
}

TEST_F(RunKeyTest, ALineThatOnlyLooksLikeOneOfARunHasNone) {
    EXPECT_EQ(keyOf(Kind::run, "run: "), "-");
    EXPECT_EQ(keyOf(Kind::run, "run: {"), "-");
    EXPECT_EQ(keyOf(Kind::run, "run: [1]"), "-");
    EXPECT_EQ(keyOf(Kind::run, R"(run: {"run":7})"), "-");
    EXPECT_EQ(keyOf(Kind::run, R"(run: {"run_percent":"{run} 7"})"), "%7Brun%7D%207");
}

} // namespace

} // namespace relay
