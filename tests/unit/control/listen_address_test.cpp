// Which texts are taken as an address to listen at.
#include "control/metrics/listen_address.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

TEST(ParseListenAddress, TakesVersion4) {
    const ListenAddress address = parseListenAddress("127.0.0.1:9751");
    EXPECT_EQ(address.problem, "");
    EXPECT_EQ(address.text, "127.0.0.1:9751");
    EXPECT_EQ(address.host, "127.0.0.1");
    EXPECT_EQ(address.port, 9751);
    EXPECT_FALSE(address.isVersion6);
}

TEST(ParseListenAddress, TakesVersion6InBrackets) {
    const ListenAddress address = parseListenAddress("[::1]:65535");
    EXPECT_EQ(address.problem, "");
    EXPECT_EQ(address.text, "[::1]:65535");
    EXPECT_EQ(address.host, "::1");
    EXPECT_EQ(address.port, 65535);
    EXPECT_TRUE(address.isVersion6);
}

class RefusedAddress : public testing::TestWithParam<const char*> {};

TEST_P(RefusedAddress, IsToldWhatIsWrong) {
    const ListenAddress address = parseListenAddress(GetParam());
    EXPECT_THAT(address.problem, testing::HasSubstr(GetParam()));
    EXPECT_EQ(address.port, 0);
}

INSTANTIATE_TEST_SUITE_P(Texts, RefusedAddress,
                         testing::Values("", ":", "9751", ":9751", "localhost:9751", "127.0.0.1",
                                         "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536",
                                         "127.0.0.1:99999999999999999999", "127.0.0.1:-1",
                                         "127.0.0.1:+1", "127.0.0.1: 1", "127.0.0.1:1x",
                                         "127.0.0.1:0x50", "127.1:80", "256.0.0.1:80", "::1:80",
                                         "[::1]", "[::1]80", "[127.0.0.1]:80", "[]:80", "[:80",
                                         "[::1]:80,127.0.0.1:81", "127.0.0.1:80s"));

TEST(ListenAt, GivesASocketOrTheReason) {
    std::string problem;
    EXPECT_GE(listenAt(parseListenAddress("127.0.0.1:9751"), problem).get(), 0);
    EXPECT_EQ(problem, "");
    EXPECT_LT(listenAt(parseListenAddress("192.0.2.1:9751"), problem).get(), 0);
    EXPECT_EQ(problem, "cannot listen at 192.0.2.1:9751: Cannot assign requested address");
}

} // namespace

} // namespace control
