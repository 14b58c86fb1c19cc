// What skarnctl makes of the relay's answers.
#include "control/observe/relay_look.h"

#include <gtest/gtest.h>

namespace control {
namespace {

const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n";

TEST(RelayLook, TellsEachSubscriberAndWhatIsWrong) {
    const auto relay = parseRelayAnswer(
        head +
        R"({"version":1,"records":12,"problem":"no space","subscribers":[)"
        R"({"name":"viewer","lag":3,"lag_seconds":1.5,"problem":"status 1","type":"command"}]})");
    ASSERT_TRUE(relay);
    EXPECT_EQ(relay->records, 12U);
    EXPECT_EQ(relay->problem, "no space");
    ASSERT_EQ(relay->subscribers.size(), 1U);
    EXPECT_EQ(relay->subscribers[0].name, "viewer");
    EXPECT_EQ(relay->subscribers[0].lag, 3U);
    EXPECT_DOUBLE_EQ(relay->subscribers[0].lagSeconds, 1.5);
    EXPECT_EQ(relay->subscribers[0].problem, "status 1");
}

TEST(RelayLook, BelievesNothingElse) {
    for (const std::string& answer :
         {std::string(), std::string("HTTP/1.1 200 OK\r\n"), head, head + "{}", head + "[1",
          head + R"({"records":"many","problem":"","subscribers":[]})",
          head + R"({"records":1,"problem":"","subscribers":[{"name":1}]})",
          std::string("HTTP/1.1 503 Busy\r\n\r\n") +
              R"({"records":1,"problem":"","subscribers":[]})"}) {
        EXPECT_FALSE(parseRelayAnswer(answer)) << answer;
    }
}

TEST(RelayLook, WhereNoRelayListensThereIsNone) {
    EXPECT_FALSE(lookAtRelay("/nowhere/socket"));
    EXPECT_FALSE(lookAtRelay(std::string(200, 'x')));
}

} // namespace
} // namespace control
