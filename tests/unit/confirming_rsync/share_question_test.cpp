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

TEST(ShareQuestion, ListsByNameWithBoundedWaits) {
    EXPECT_EQ(
        questionArguments({"--password-file=/p"}, "rsync://h/m/"),
        (Strings{"--list-only", "--files-from=-", "--from0", "--8-bit-output", "--no-motd",
                 "--contimeout=10", "--timeout=20", "--password-file=/p", "rsync://h/m/", "."}));
}

TEST(ShareQuestion, NamesTheFilesAsTheyAre) {
    EXPECT_EQ(questionInput({"a", "b c", "n\\#012l", "\\#134#012"}), "a\0b c\0n\nl\0\\#012\0"s);
    EXPECT_EQ(questionInput({}), "");
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

    Share share{"ramdisk", "/"};
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
