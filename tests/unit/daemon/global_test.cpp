// The defaults of the process-wide settings, and the signal policy's function.
#include "daemon/global.h"
#include "daemon/signal_handling.h"
#include "tests/unit/support/settings_test.h"

#include <csignal>
#include <ctime>

#include <gtest/gtest.h>

namespace {

class Global : public SettingsTest {};

} // namespace

TEST_F(Global, HasItsDefaults) {
    EXPECT_EQ(GLOBAL::progName, "skarn");
    EXPECT_EQ(GLOBAL::argc, 0);
    EXPECT_EQ(GLOBAL::argv, nullptr);
    EXPECT_EQ(GLOBAL::logFileName, "/dev/null");
    EXPECT_EQ(GLOBAL::uid, "");
    EXPECT_EQ(GLOBAL::gid, "");
    EXPECT_EQ(GLOBAL::usrdir, "");
    EXPECT_EQ(GLOBAL::passwordFile, "/usr/local/orbelin/etc/rsyncd.secrets_remote");
    EXPECT_EQ(GLOBAL::rsyncPort, "49371");
    EXPECT_EQ(GLOBAL::rsyncCommand, "/usr/local/orbelin/bin/rsync_orbelin");
    EXPECT_EQ(GLOBAL::rsyncdShare, "ramdisk");
    EXPECT_EQ(GLOBAL::pathToVantrelFifo, "/var/run/vantrel_orbelin_files");
    EXPECT_EQ(GLOBAL::logFileMaxSize, 10485760);
    EXPECT_EQ(GLOBAL::logFileMaxNumber, 10);
    EXPECT_EQ(GLOBAL::numberOfProcesses, 1);
}

TEST_F(Global, HasItsDefaultOptionsToTheByte) {
    EXPECT_EQ(GLOBAL::rsyncOptions, "-vthlDHW  --remove-source-files --numeric-ids --confirm-files "
                                    "--out-format='SENT: %n'");
    EXPECT_EQ(GLOBAL::rsyncListingOptions, "-mrlDHW --list-only --exclude=\"**.tmp\"");
}

TEST_F(Global, KnowsWhenTheProgramStarted) {
    constexpr time_t day = 86400;
    EXPECT_GT(GLOBAL::skarnStartTime, time(nullptr) - day);
    EXPECT_LE(GLOBAL::skarnStartTime, time(nullptr));
}

TEST(SignalHandler, DoesNothing) {
    SIGNAL_HANDLING::signalHandler(SIGTERM);
    struct sigaction action = {};
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
}
