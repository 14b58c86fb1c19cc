// The argument vectors and the environment that stock rsync gets.
#include "confirming_rsync/arguments.h"

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
                                       "--sockopts=TCP_NODELAY", "--timeout=60"},
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
    EXPECT_EQ(
        arguments.rsync,
        joined({"--8-bit-output", "--contimeout=30", "--sockopts=TCP_NODELAY", "--info=remove1"},
               {"-vthlDHW", "--remove-source-files", "--numeric-ids", "--out-format=SENT: %n",
                "--password-file=/p/w", "--files-from=/tmp/list",
                "rsync://root@10.0.0.1:49371/ramdisk/data/", "/images/./"}));
    EXPECT_EQ(arguments.source, "rsync://root@10.0.0.1:49371/ramdisk/data/");
    EXPECT_EQ(arguments.destination, "/images/./");
    EXPECT_EQ(arguments.fileList, "/tmp/list");
    EXPECT_FALSE(arguments.fileListEndsNamesWithNul);
    EXPECT_EQ(arguments.access, Strings{"--password-file=/p/w"});
}

TEST(Arguments, MayHaveTheirValuesApart) {
    const Arguments arguments = readArguments(
        {"--confirm-files", "--password-file", "/p", "--files-from", "/l", "-0", "s", "d"}, "", "");
    EXPECT_EQ(arguments.fileList, "/l");
    EXPECT_EQ(arguments.access, Strings{"--password-file=/p"});
    EXPECT_TRUE(arguments.fileListEndsNamesWithNul);
    EXPECT_EQ(arguments.rsync,
              joined(ofTheReport, {"--password-file", "/p", "--files-from", "/l", "-0", "s", "d"}));
}

TEST(Arguments, CanTakeTheListFromTheInput) {
    const auto changed = [](const Strings& given) {
        Arguments arguments;
        arguments.rsync = given;
        return withListOnInput(arguments);
    };
    EXPECT_EQ(changed({"-v", "--files-from=/l", "-0", "s", "d"}),
              (Strings{"--from0", "-v", "--files-from=-", "-0", "s", "d"}));
    EXPECT_EQ(changed({"--files-from", "/l", "s", "d"}),
              (Strings{"--from0", "--files-from=-", "s", "d"}));
    EXPECT_EQ(changed({"--", "--files-from=/l", "d"}),
              (Strings{"--from0", "--", "--files-from=/l", "d"}));
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
