// What is asked of a share, and what its answer proves.
#include "confirming_rsync/share_question.h"

#include <gtest/gtest.h>

namespace confirming {
namespace {

using namespace std::string_literals;
using Strings = std::vector<std::string>;

std::string shown(const std::optional<Share>& share) {
    return share ? share->module + "|" + share->directory : "none";
}

TEST(Share, IsReadFromAnUrl) {
    EXPECT_EQ(shown(parseShare("rsync://root@10.0.0.1:49371/ramdisk/")), "ramdisk|/");
    EXPECT_EQ(shown(parseShare("rsync://host/ramdisk")), "ramdisk|/");
    EXPECT_EQ(shown(parseShare("rsync://host/ramdisk/data/")), "ramdisk|/data/");
    EXPECT_EQ(shown(parseShare("rsync://host/ramdisk/data")), "ramdisk|/data/");
    EXPECT_EQ(shown(parseShare("rsync://host/ramdisk//a/./b c//")), "ramdisk|/a/b c/");
    EXPECT_EQ(shown(parseShare("rsync://[::1]:873/mod/x/")), "mod|/x/");
}

TEST(Share, IsReadFromADoubleColon) {
    EXPECT_EQ(shown(parseShare("host::mod")), "mod|/");
    EXPECT_EQ(shown(parseShare("me@host::mod/d/")), "mod|/d/");
    EXPECT_EQ(shown(parseShare("[::1]::mod/d")), "mod|/d/");
    EXPECT_EQ(shown(parseShare("me@[fe80::1]::mod/[x]")), "mod|/[x]/");
    EXPECT_EQ(shown(parseShare("host::mod/a::b")), "mod|/a::b/");
}

TEST(Share, IsNoOtherSource) {
    for (const char* source : {"", "/local/dir/", "relative", "host:path", "rsync://host",
                               "rsync://host/", "host::", "./a::b", "/x::y", "[::1]:path", "[::1",
                               "rsync://host/mod/../other/", "rsync://host/mod/.."}) {
        EXPECT_EQ(shown(parseShare(source)), "none") << source;
    }
}

TEST(Share, HasItsModulesRootAsAnUrl) {
    const auto root = [](const char* source) { return parseShare(source)->root; };
    EXPECT_EQ(root("rsync://root@10.0.0.1:49371/ramdisk/"), "rsync://root@10.0.0.1:49371/ramdisk/");
    EXPECT_EQ(root("rsync://host/ramdisk"), "rsync://host/ramdisk/");
    EXPECT_EQ(root("rsync://host/ramdisk//a/./b c//"), "rsync://host/ramdisk/");
    EXPECT_EQ(root("rsync://[::1]:873/mod/x/"), "rsync://[::1]:873/mod/");
    EXPECT_EQ(root("me@host::mod"), "me@host::mod/");
    EXPECT_EQ(root("me@[fe80::1]::mod/[x]/::y"), "me@[fe80::1]::mod/");
}

TEST(Share, HasEntriesThatBeginInItsDirectory) {
    EXPECT_EQ(parseShare("rsync://h/m/")->entry("sub/a"), "sub/a");
    EXPECT_EQ(parseShare("rsync://h/m/")->entry("n\\#012l"), "n\nl");
    EXPECT_EQ(parseShare("rsync://h/m/exp/run7")->entry("sub/a"), "exp/run7/./sub/a");
    EXPECT_EQ(parseShare("h::m/./a b//c/")->entry("n\\#012l"), "a b/c/./n\nl");
    // A directory that looks like an escape, and one with a control character.
    EXPECT_EQ(parseShare("h::m/\\#101/x\ny/")->entry("\\#134#012"), "\\#101/x\ny/./\\#012");
}

TEST(Share, NamesPathsAsComplaintsQuoteThem) {
    EXPECT_EQ(parseShare("rsync://h/m/")->pathOf("sub/a"), "/sub/a");
    EXPECT_EQ(parseShare("rsync://h/m/d/x\ny/")->pathOf("a\\#012"), "/d/x\\#012y/a\\#012");
}

TEST(ShareQuestion, ListsByNameWithBoundedWaits) {
    EXPECT_EQ(
        questionArguments({"--password-file=/p"}, *parseShare("rsync://h/m/exp/run7/")),
        (Strings{"--list-only", "--files-from=-", "--from0", "--8-bit-output", "--no-motd",
                 "--contimeout=10", "--timeout=20", "--password-file=/p", "rsync://h/m/", "."}));
}

TEST(ShareQuestion, NamesTheFilesAsTheyAre) {
    const Share root = *parseShare("rsync://h/m/");
    EXPECT_EQ(listInput(root, {"a", "b c", "n\\#012l", "\\#134#012"}), "a\0b c\0n\nl\0\\#012\0"s);
    EXPECT_EQ(listInput(root, {}), "");
    EXPECT_EQ(listInput(*parseShare("rsync://h/m/d/"), {"a", "b/c"}), "d/./a\0d/./b/c\0"s);
}

TEST(ListingLine, MayMeanSeveralNames) {
    const auto names = [](const std::string& line) {
        Strings taken;
        forListedNames(line, [&taken](std::string_view name) { taken.emplace_back(name); });
        return taken;
    };
    EXPECT_EQ(names("-rw-r--r--          1,000 2026/11/21 08:00:00 a b"), Strings{"a b"});
    EXPECT_EQ(names("-rw-r--r--  0 2026/11/21 08:00:00  lead"), Strings{" lead"});
    EXPECT_EQ(names("lrwxrwxrwx  1 2026/11/21 08:00:00 l -> b -> c"),
              (Strings{"l -> b -> c", "l", "l -> b"}));
    for (const char* line : {"", " ", "motd", "-rw-r--r--  0 2026/11/21 08:00:00",
                             "-rw-r--r--  0 2026/11/21 08:00:00 "}) {
        EXPECT_EQ(names(line), Strings{}) << line;
    }
}

TEST(ShareQuestion, IsAnsweredWhenRsyncWentThroughAllNames) {
    for (const int status : {0, 23, 24}) {
        EXPECT_TRUE(isAnswered(status)) << status;
    }
    for (const int status : {1, 5, 10, 12, 20, 30, 35, 127, 137}) {
        EXPECT_FALSE(isAnswered(status)) << status;
    }
}

class NamesGone : public testing::Test {
protected:
    static std::string missing(const std::string& path) {
        return "rsync: [sender] link_stat \"" + path +
               "\" (in ramdisk) failed: No such file or directory (2)\n";
    }

    Strings gone(const Strings& names, const std::string& output, const std::string& errors) const {
        return namesGone(share, names, output, errors);
    }

    Share share{"rsync://h/ramdisk/", "ramdisk", "/"};
};

TEST_F(NamesGone, AreThoseThatTheShareSaysDoNotExist) {
    EXPECT_EQ(gone({"a", "b", "sub/c"}, "-rw-r--r--              2 2026/11/21 05:30:34 b\n",
                   missing("/a") + missing("/sub/c") +
                       "rsync error: some files/attrs were not transferred (code 23)\n"),
              (Strings{"a", "sub/c"}));
}

TEST_F(NamesGone, AreKnownFromVersionsThatDoNotSayWhoComplains) {
    EXPECT_EQ(gone({"a"}, "",
                   "rsync: link_stat \"/a\" (in ramdisk) failed: No such file or directory (2)\n"),
              Strings{"a"});
}

TEST_F(NamesGone, AreNoneWithoutAComplaint) {
    EXPECT_EQ(gone({"a", "b"}, "", ""), Strings{});
    EXPECT_EQ(gone({}, "", missing("/a")), Strings{});
}

TEST_F(NamesGone, AreTakenOnlyFromTheExactComplaint) {
    for (
        const std::string& complaint :
        {"rsync: [sender] link_stat \"/a\" (in ramdisk) failed: Not a directory (20)\n"s,
         "rsync: [sender] link_stat \"/a\" (in ramdisk) failed: Permission denied (13)\n"s,
         "rsync: [sender] link_stat \"/a\" (in other) failed: No such file or directory (2)\n"s,
         "rsync: [sender] link_stat \"a\" (in ramdisk) failed: No such file or directory (2)\n"s,
         "rsync: [sender] link_stat \"/a\" failed: No such file or directory (2)\n"s,
         "rsync: [sender] link_stat \"/a\" (in ramdisk) failed: No such file or directory (2) \n"s,
         "rsync: [sender] link_stat \"/a\" (in ramdisk) failed: No such file or direct"s,
         "x rsync: [sender] link_stat \"/a\" (in ramdisk) failed: No such file or directory (2)\n"s,
         "rsync: [receiver] link_stat \"/a\" (in ramdisk) failed: No such file or directory (2)\n"s,
         "file has vanished: \"/a\" (in ramdisk)\n"s, missing("/aa"), missing("/A"), missing("//a"),
         missing("/x/a")}) {
        EXPECT_EQ(gone({"a"}, "", complaint), Strings{}) << complaint;
    }
}

TEST_F(NamesGone, AreNotThoseThatAreListedAllTheSame) {
    const std::string line = " 2 2026/11/21 05:30:34 ";
    for (const std::string& listing :
         {"-rw-r--r--" + line + "a\n", "drwxr-xr-x" + line + "a\n", "lrwxrwxrwx" + line + "a\n",
          "lrwxrwxrwx" + line + "a -> somewhere\n", "lrwxrwxrwx" + line + "a -> b -> c\n",
          "-rw-r--r--     12,345,678 2026/11/21 05:30:34 a"s}) {
        EXPECT_EQ(gone({"a"}, listing, missing("/a")), Strings{}) << listing;
    }
    EXPECT_EQ(gone({"a"}, "-rw-r--r--" + line + "aa\n-rw-r--r--" + line + "b/a\nshort\n\n \n",
                   missing("/a")),
              Strings{"a"});
    EXPECT_EQ(gone({"a -> b"}, "lrwxrwxrwx" + line + "a -> b -> c\n", missing("/a -> b")),
              Strings{});
}

TEST_F(NamesGone, MayHoldAnyCharacters) {
    for (const std::string& name : {"two words"s, " lead"s, "trail "s, "q\"q"s, "b\\s"s,
                                    "n\\#012l"s, "\\#134#012"s, "\xe4\xff"s, "tab\t"s, "-x"s,
                                    "x\" (in ramdisk) failed: No such file or directory (2)"s}) {
        EXPECT_EQ(gone({name, "other"}, "", missing("/" + name)), Strings{name}) << name;
        EXPECT_EQ(
            gone({name}, "-rw-r--r-- 2 2026/11/21 05:30:34 " + name + "\n", missing("/" + name)),
            Strings{})
            << name;
    }
}

TEST_F(NamesGone, AreRelativeToTheSourceBelowTheModule) {
    share.directory = "/data/in/";
    EXPECT_EQ(gone({"a", "s/b"}, "", missing("/data/in/a") + missing("/s/b")), Strings{"a"});
}

} // namespace
} // namespace confirming
