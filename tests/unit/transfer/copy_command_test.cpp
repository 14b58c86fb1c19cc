// Building command lines from the settings.
#include "daemon/global.h"
#include "tests/unit/support/settings_test.h"
#include "transfer/copy_command.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;

namespace {

class CopyCommand : public SettingsTest {
protected:
    const std::string url = "rsync://root@10.0.0.1:49371/ramdisk/data/";
};

} // namespace

TEST_F(CopyCommand, NamesTheShareWithTheDefaults) {
    EXPECT_EQ(shareUrl("10.0.0.1", "/data/"), url);
}

TEST_F(CopyCommand, NamesTheShareWithTheSettings) {
    GLOBAL::rsyncPort = "1234";
    GLOBAL::rsyncdShare = "disk";
    EXPECT_EQ(shareUrl("host", "/"), "rsync://root@host:1234/disk/");
}

TEST_F(CopyCommand, ListsTheShare) {
    EXPECT_EQ(listingCommand(url),
              "/usr/local/orbelin/bin/rsync_orbelin -mrlDHW --list-only --exclude=\"**.tmp\" "
              "--password-file=/usr/local/orbelin/etc/rsyncd.secrets_remote " +
                  url + " 2>/tmp/skarn_error.log");
}

TEST_F(CopyCommand, PreparesTheTarget) {
    EXPECT_EQ(makeTargetCommand("/images/."), "mkdir -p /images/.");
    GLOBAL::uid = "1000";
    GLOBAL::gid = "staff";
    EXPECT_EQ(changeOwnerCommand("/images/."), "chown 1000:staff /images/.");
}

TEST_F(CopyCommand, CopiesWithTheSettingsUnchanged) {
    EXPECT_EQ(copyCommand("/tmp/list", url, "/images/."),
              "/usr/local/orbelin/bin/rsync_orbelin -vthlDHW  --remove-source-files --numeric-ids "
              "--confirm-files --out-format='SENT: %n' "
              "--password-file=/usr/local/orbelin/etc/rsyncd.secrets_remote "
              "--files-from=/tmp/list " +
                  url + " /images/./");
}

TEST_F(CopyCommand, SplitsTheCopyCommandLikeAShellWould) {
    EXPECT_THAT(copyArguments(copyCommand("/tmp/list", url, "/images/.")),
                ElementsAre("/usr/local/orbelin/bin/rsync_orbelin", "-vthlDHW",
                            "--remove-source-files", "--numeric-ids", "--confirm-files",
                            "--out-format=SENT: %n",
                            "--password-file=/usr/local/orbelin/etc/rsyncd.secrets_remote",
                            "--files-from=/tmp/list", url, "/images/./"));
}

TEST_F(CopyCommand, GivesTheOwnerAloneInTheEnvironment) {
    EXPECT_THAT(copyEnvironment(), ElementsAre("RSYNC_UID=", "RSYNC_GID="));
    GLOBAL::uid = "1000";
    GLOBAL::gid = "staff";
    EXPECT_THAT(copyEnvironment(), ElementsAre("RSYNC_UID=1000", "RSYNC_GID=staff"));
}

TEST_F(CopyCommand, KeepsAnOwnerOfAnyLength) {
    GLOBAL::uid = std::string(1000, '7');
    EXPECT_EQ(copyEnvironment().at(0), "RSYNC_UID=" + GLOBAL::uid);
}

TEST_F(CopyCommand, GivesTextsAsANullTerminatedArray) {
    const ExecVector vector({"one", "", "three"});
    EXPECT_STREQ(vector.get()[0], "one");
    EXPECT_STREQ(vector.get()[1], "");
    EXPECT_STREQ(vector.get()[2], "three");
    EXPECT_EQ(vector.get()[3], nullptr);
    const ExecVector empty({});
    EXPECT_EQ(empty.get()[0], nullptr);
}
