// What is told of the relay.
#include "relay/status.h"

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace relay {

namespace {

using testing::HasSubstr;

Status example() {
    Status status;
    status.pipe = "/p";
    status.intake.records = 9007199254740993;
    SubscriberFigures subscriber;
    subscriber.name = "me";
    subscriber.type = "pipe";
    subscriber.lag = 3;
    subscriber.lagSeconds = 1.25;
    subscriber.problem = "bad \xff \"news\"\n";
    status.subscribers.push_back(subscriber);
    return status;
}

TEST(Status, IsTheSameInAllForms) {
    const Json object = jsonOf(example());
    EXPECT_EQ(object["subscribers"][0]["lag"], 3);
    EXPECT_EQ(object["subscribers"][0]["lag_seconds"], 1.25);
    EXPECT_THAT(metricsText(example()),
                HasSubstr("skarn_relay_subscriber_lag_seconds{subscriber=\"me\",type=\"pipe\"} "
                          "1.250\n"));
    EXPECT_THAT(statusText(example()),
                HasSubstr("me (pipe): 3 records behind, the oldest 1.250 s"));
}

TEST(Status, SaysFirstThatItIsStalled) {
    Status status = example();
    status.intake.problem = "disk full";
    status.stalledSeconds = 5;
    EXPECT_EQ(statusText(status).find("STALLED for 5 s: disk full\n"), 0U);
}

} // namespace

} // namespace relay
