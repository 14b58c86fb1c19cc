// Which texts are taken as an address to listen at.
#include "control/metrics/metrics_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

TEST(ListenAt, TakesBothVersions) {
    for (const char* const text : {"127.0.0.1:9751", "0.0.0.0:1024", "[::1]:65535", "[::]:9752"}) {
        const Listening listening = listenAt(text);
        EXPECT_EQ(listening.problem, "");
        EXPECT_GE(listening.socket.get(), 0) << text;
    }
}

class RefusedAddress : public testing::TestWithParam<const char*> {};

TEST_P(RefusedAddress, IsToldWhatIsWrong) {
    const Listening listening = listenAt(GetParam());
    EXPECT_TRUE(listening.isWrong);
    EXPECT_THAT(listening.problem, testing::HasSubstr(GetParam()));
    EXPECT_LT(listening.socket.get(), 0);
}

INSTANTIATE_TEST_SUITE_P(Texts, RefusedAddress,
                         testing::Values("", ":", "9751", ":9751", "localhost:9751", "127.0.0.1",
                                         "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536",
                                         "127.0.0.1:99999999999999999999", "127.0.0.1:-1",
                                         "127.0.0.1:+1", "127.0.0.1: 1", "127.0.0.1:1x",
                                         "127.0.0.1:0x50", "127.1:80", "256.0.0.1:80", "::1:80",
                                         "[::1]", "[::1]80", "[127.0.0.1]:80", "[]:80", "[:80",
                                         "[::1]:80,127.0.0.1:81", "127.0.0.1:80s"));

TEST(ListenAt, SaysWhyItCannot) {
    const Listening listening = listenAt("192.0.2.1:9751");
    EXPECT_LT(listening.socket.get(), 0);
    EXPECT_FALSE(listening.isWrong);
    EXPECT_EQ(listening.problem,
              "cannot listen at 192.0.2.1:9751: Cannot assign requested address");
}

} // namespace

} // namespace control
