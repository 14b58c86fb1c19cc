// What is shown of a listing's complaint. (What else a detector's state is made of is tested beside
// the real daemon.)
#include "control/observe/detector_watch.h"

#include <gtest/gtest.h>

namespace control {

namespace {

TEST(CauseIn, IsTheLineThatTellsTheCauseAndItsReason) {
    EXPECT_EQ(
        causeIn("rsync: [Receiver] failed to connect to 10.0.0.2 (10.0.0.2): Connection "
                "refused (111)\nrsync error: error in socket IO (code 10) at clientserver.c\n"),
        "Connection refused");
    EXPECT_EQ(causeIn("rsync error: timeout waiting for daemon connection (code 35) at socket.c"),
              "rsync error: timeout waiting for daemon connection (code 35) at socket.c");
    EXPECT_EQ(causeIn("@ERROR: auth failed on module ramdisk\nrsync error: x (code 5)\n"),
              "@ERROR: auth failed on module ramdisk");
    EXPECT_EQ(
        causeIn("\nrsync error: x (code 12)\nrsync: [sender] opendir \"/d\" failed: Permission "
                "denied (13)\n"),
        "[sender] opendir \"/d\" failed: Permission denied");
    EXPECT_EQ(causeIn(""), "");
    EXPECT_EQ(causeIn("("), "(");
    EXPECT_EQ(causeIn(" ()"), " ()");
}

} // namespace

} // namespace control
