// The argument vectors and the environment that stock rsync gets.
#include "confirming_rsync/arguments.h"

#include <algorithm>

#include <gtest/gtest.h>

namespace confirming {
namespace {

using Strings = std::vector<std::string>;

const Strings ofTheReport{"--8-bit-output", "--info=remove1"};

Strings joined(Strings first, const Strings& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

TEST(Arguments, OfAListingOfAShareGetLimitsToTheWaitingAndNoDelay) {
    const Strings given{"-mrlDHW", "--list-only", "--exclude=**.tmp",
                        "rsync://root@10.0.0.1:49371/ramdisk/"};
    const Arguments arguments = readArguments(given, "5", "6");
    EXPECT_FALSE(arguments.confirming);
    EXPECT_EQ(arguments.rsync, joined({"--8-bit-output", "--contimeout=30",
                                       "--sockopts=TCP_NODELAY", "--no-motd", "--timeout=60"},
                                      given));
    EXPECT_EQ(arguments.listedSource, given.back());
}

TEST(Arguments, OfAnyOtherCallStayAsTheyAre) {
    for (const Strings& given :
         {Strings{"-r", "--list-only", "/local/"}, Strings{"--list-only", "host:path"},
          Strings{"-n", "rsync://host/module/", "/tmp"}, Strings{"--version"}}) {
        EXPECT_EQ(readArguments(given, "5", "6").rsync, joined({"--8-bit-output"}, given));
    }
}

TEST(Arguments, OfACopyAreTakenApart) {
    const Arguments arguments =
        readArguments({"-vthlDHW", "--remove-source-files", "--numeric-ids", "--confirm-files",
                       "--out-format=SENT: %n", "--password-file=/p/w", "--files-from=/tmp/list",
                       "rsync://root@10.0.0.1:49371/ramdisk/data/", "/images/./"},
                      "", "");
    EXPECT_TRUE(arguments.confirming);
    EXPECT_EQ(arguments.rsync, joined({"--8-bit-output", "--contimeout=30",
                                       "--sockopts=TCP_NODELAY", "--no-motd", "--info=remove1"},
                                      {"-vthlDHW", "--remove-source-files", "--numeric-ids",
                                       "--out-format=SENT: %n", "--password-file=/p/w",
                                       "rsync://root@10.0.0.1:49371/ramdisk/data/", "/images/./"}));
    EXPECT_EQ(arguments.source, "rsync://root@10.0.0.1:49371/ramdisk/data/");
    EXPECT_EQ(arguments.destination, "/images/./");
    EXPECT_EQ(arguments.fileList, "/tmp/list");
    EXPECT_FALSE(arguments.listEndsNamesWithNul);
    EXPECT_EQ(arguments.access, Strings{"--password-file=/p/w"});
}

TEST(Arguments, MayHaveTheirValuesApart) {
    const Arguments arguments = readArguments(
        {"--confirm-files", "--password-file", "/p", "--files-from", "/l", "-0", "s", "d"}, "", "");
    EXPECT_EQ(arguments.fileList, "/l");
    EXPECT_EQ(arguments.access, Strings{"--password-file=/p"});
    EXPECT_TRUE(arguments.listEndsNamesWithNul);
    EXPECT_EQ(arguments.rsync, joined(ofTheReport, {"--password-file", "/p", "s", "d"}));
}

TEST(Arguments, KeepTheListsOptionsInAnyOtherCall) {
    const Strings given{"--files-from", "/l", "--from0", "-0", "s", "d"};
    EXPECT_EQ(readArguments(given, "", "").rsync, joined({"--8-bit-output"}, given));
}

class PassArguments : public testing::Test {
protected:
    static Strings of(Pass pass, Comparison comparison) {
        const Arguments arguments = readArguments(
            {"-vthlDHW", "--remove-source-files", "--confirm-files", "--files-from=/tmp/list",
             "rsync://root@10.0.0.1:49371/ramdisk/exp/run7/", "/images/./"},
            "", "");
        return passArguments(arguments, *parseShare(arguments.source), pass, comparison);
    }

    const Strings list{"--from0", "--files-from=-"};
    const Strings ofAShare{"--8-bit-output", "--contimeout=30", "--sockopts=TCP_NODELAY",
                           "--no-motd", "--info=remove1"};
    const Strings places{"rsync://root@10.0.0.1:49371/ramdisk/", "/images/./"};
};

TEST_F(PassArguments, CopyAndRemoveInOne) {
    EXPECT_EQ(of(Pass::copyAndRemove, Comparison::nanoseconds),
              joined(joined(joined(list, {"--modify-window=-1"}), ofAShare),
                     joined({"-vthlDHW", "--remove-source-files"}, places)));
}

TEST_F(PassArguments, LeaveTheSourceAsItIsWhenOnlyCopying) {
    EXPECT_EQ(of(Pass::copy, Comparison::nanoseconds),
              joined(joined(joined(list, {"--modify-window=-1"}), ofAShare),
                     joined({"-vthlDHW"}, places)));
}

TEST_F(PassArguments, GiveNoRoomForCopiesWhenOnlyRemoving) {
    EXPECT_EQ(
        of(Pass::remove, Comparison::nanoseconds),
        joined(joined(joined(list, {"--modify-window=-1"}), ofAShare),
               joined({"-vthlDHW", "--remove-source-files", "--temp-dir=/proc", "--no-verbose"},
                      places)));
}

TEST_F(PassArguments, CompareBySecondsWhereTheTargetKeepsNoMore) {
    for (const Pass pass : {Pass::copyAndRemove, Pass::copy, Pass::remove}) {
        Strings exact = of(pass, Comparison::nanoseconds);
        const auto option = std::find(exact.begin(), exact.end(), "--modify-window=-1");
        ASSERT_NE(option, exact.end());
        exact.erase(option);
        EXPECT_EQ(of(pass, Comparison::seconds), exact);
    }
}

TEST_F(PassArguments, SendEverythingWhereNothingIsCompared) {
    EXPECT_EQ(
        of(Pass::copy, Comparison::none),
        joined(joined(joined(list, {"--ignore-times"}), ofAShare), joined({"-vthlDHW"}, places)));
}

TEST(Arguments, AreOptionsOnlyBeforeTheDoubleDash) {
    const Arguments arguments = readArguments({"--", "--confirm-files", "--files-from=x"}, "", "");
    EXPECT_FALSE(arguments.confirming);
    EXPECT_EQ(arguments.rsync,
              (Strings{"--8-bit-output", "--", "--confirm-files", "--files-from=x"}));
    EXPECT_EQ(arguments.fileList, "");
}

TEST(Arguments, LoseEveryConfirmOption) {
    const Arguments arguments =
        readArguments({"--confirm-files", "a", "--confirm-files", "b"}, "", "");
    EXPECT_EQ(arguments.rsync, joined(ofTheReport, {"a", "b"}));
    EXPECT_EQ(readArguments({"--confirm-files-not"}, "", "").confirming, false);
}

TEST(Arguments, MayBeFewOrNone) {
    EXPECT_EQ(readArguments({}, "", "").rsync, Strings{"--8-bit-output"});
    const Arguments arguments = readArguments({"--confirm-files", "--files-from"}, "", "");
    EXPECT_EQ(arguments.rsync, joined(ofTheReport, {"--files-from"}));
    EXPECT_EQ(arguments.source, "");
    EXPECT_EQ(arguments.destination, "");
    EXPECT_EQ(arguments.fileList, "");
}

TEST(Arguments, SetTheOwnerFromUserAndGroup) {
    const auto owner = [](const std::string& uid, const std::string& gid) {
        const Strings rsync = readArguments({"--confirm-files"}, uid, gid).rsync;
        return Strings(rsync.begin() + static_cast<std::ptrdiff_t>(ofTheReport.size()),
                       rsync.end());
    };
    EXPECT_EQ(owner("1000", "100"), (Strings{"-og", "--chown=1000:100"}));
    EXPECT_EQ(owner("1000", ""), (Strings{"-og", "--chown=1000"}));
    EXPECT_EQ(owner("", "100"), (Strings{"-og", "--chown=:100"}));
    EXPECT_EQ(owner("", ""), Strings{});
    EXPECT_EQ(owner("some user", "group"), (Strings{"-og", "--chown=some user:group"}));
}

TEST(ChildEnvironment, GetsAPathAndALocale) {
    EXPECT_EQ(
        childEnvironment({"RSYNC_UID=", "RSYNC_GID=5"}),
        (Strings{"RSYNC_UID=", "RSYNC_GID=5",
                 "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"}));
}

TEST(ChildEnvironment, KeepsThePathAndReplacesTheLocale) {
    EXPECT_EQ(childEnvironment({"LC_ALL=de_DE.UTF-8", "PATH=/x", "LANG=de_DE", "LC_ALLX=1"}),
              (Strings{"PATH=/x", "LANG=de_DE", "LC_ALLX=1", "LC_ALL=C"}));
}

} // namespace
} // namespace confirming
