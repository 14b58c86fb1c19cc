// Which lines of stock rsync become which lines of the report, and when.
#include "confirming_rsync/report_filter.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace confirming {
namespace {

using namespace std::string_literals;

using Strings = std::vector<std::string>;

/// All are in place but this one, and have five bytes.
ReportFilter filterOf(const Strings& listed, const std::string& directory = "/") {
    ReportFilter filter(directory, [](const std::string& name) {
        return name == "nowhere" ? std::nullopt : std::optional<std::uint64_t>(5);
    });
    filter.setListed(listed);
    return filter;
}

/// With the files a to z to be copied.
ReportFilter filterOfLetters() {
    Strings letters;
    for (char letter = 'a'; letter <= 'z'; ++letter) {
        letters.emplace_back(1, letter);
    }
    return filterOf(letters);
}

/// All that rsync says it has sent or removed.
Strings namesIn(const std::string& output) {
    Strings names;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        for (const std::string& beginning : {"SENT: "s, "sender removed "s}) {
            if (line.rfind(beginning, 0) == 0 && line.size() > beginning.size()) {
                names.push_back(line.substr(beginning.size()));
            }
        }
    }
    return names;
}

/// The whole report for an output that arrives in portions of the given size.
std::string reportOf(const std::string& output, std::size_t portion) {
    ReportFilter filter = filterOf(namesIn(output));
    std::string report;
    for (std::size_t at = 0; at < output.size(); at += portion) {
        filter.takeOutput(std::string_view(output).substr(at, portion));
        report += filter.takeReport();
    }
    filter.finish();
    return report + filter.takeReport();
}

void expectReport(const std::string& output, const std::string& report) {
    for (std::size_t portion = 1; portion <= output.size() + 1; ++portion) {
        ASSERT_EQ(reportOf(output, portion), report) << "in portions of " << portion;
    }
}

TEST(ReportFilter, SaysNothingWhenNothingIsSaid) {
    expectReport("", "");
}

TEST(ReportFilter, ConfirmsAFileThatWasSentAndRemoved) {
    expectReport("SENT: a\nSENT: dir/b\nsender removed dir/b\nsender removed a\n",
                 "SENT: a\nSENT: dir/b\nCONFIRMED: removed dir/b\nCONFIRMED: removed a\n");
}

TEST(ReportFilter, ConfirmsAtOnceWhileTheCopyingGoesOn) {
    ReportFilter filter = filterOfLetters();
    filter.takeOutput("SENT: a\nsender removed a\nSENT: b");
    EXPECT_EQ(filter.takeReport(), "SENT: a\nCONFIRMED: removed a\n");
    EXPECT_EQ(filter.takeReport(), "");
    EXPECT_TRUE(filter.hasConfirmed());
}

TEST(ReportFilter, TellsWhereEachConfirmationEnds) {
    ReportFilter filter = filterOfLetters();
    std::string report;
    std::vector<ReportFilter::Confirmation> confirmations;
    const auto take = [&] {
        report += filter.takeReport();
        for (ReportFilter::Confirmation& confirmation : filter.takeConfirmations()) {
            confirmations.push_back(std::move(confirmation));
        }
    };
    filter.takeOutput("SENT: a\nsender removed a\nSENT: b\nsender removed b\nnoise\n");
    take();
    filter.confirm("c");
    filter.confirmRecovered("d");
    take();
    const std::vector<std::string> lines{"CONFIRMED: removed a\n", "CONFIRMED: removed b\n",
                                         "CONFIRMED: removed c\n", "CONFIRMED: recovered d\n"};
    ASSERT_EQ(confirmations.size(), lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(report.substr(confirmations[i].end - lines[i].size(), lines[i].size()), lines[i]);
        EXPECT_EQ(confirmations[i].name + "\n", lines[i].substr(lines[i].rfind(' ') + 1));
        EXPECT_EQ(confirmations[i].bytes, 5U);
    }
}

TEST(ReportFilter, ConfirmsNothingThatWasNeitherSentNorIsInPlace) {
    expectReport("sender removed nowhere\nsender removed a\n",
                 "sender removed nowhere\nCONFIRMED: removed a\n");
}

TEST(ReportFilter, PassesOnEverythingElse) {
    const std::string chatter = "receiving file list ... done\n"
                                "\n"
                                "sender file already removed: a\n"
                                "SENT:x\n"
                                " SENT: indented\n"
                                "SENT: \n"
                                "SENT:\n"
                                "sender removed \n"
                                "sender removed\n"
                                "sender removed dir/\n"
                                " sender removed a\n"
                                "Sender removed a\n"
                                "xCONFIRMED: removed a\n"
                                "CONFIRMED:x\n"
                                "sent 1 bytes  received 2 bytes\r\n"
                                "any \x01\xa0\xff\t\x1b byte\n";
    expectReport(chatter, chatter);
    ReportFilter filter = filterOfLetters();
    filter.takeOutput(chatter);
    filter.finish();
    EXPECT_FALSE(filter.hasConfirmed());
}

TEST(ReportFilter, ShowsWhatATerminalMayObeyButInNames) {
    expectReport("\x9b\x32J\x7f\n", "\\#2332J\\#177\n");
    expectReport("SENT: \x9bz\nsender removed \x9bz\nSENT: \x7f\n",
                 "SENT: \x9bz\nCONFIRMED: removed \x9bz\nSENT: \x7f\n");
    ReportFilter filter = filterOfLetters();
    filter.takeErrorOutput("rsync: \x85\n");
    EXPECT_EQ(filter.takeReport(), "rsync: \\#205\n");
}

TEST(ReportFilter, KeepsNulBytes) {
    expectReport("a\0b\n\0\nSENT: x\0y\n"s, "a\0b\n\0\nSENT: x\0y\n"s);
}

TEST(ReportFilter, DropsDirectories) {
    expectReport("SENT: sub/\nSENT: sub/a\nSENT: /\n", "SENT: sub/a\n");
}

TEST(ReportFilter, TakesNamesAsBytesToTheEndOfTheLine) {
    for (const std::string& name :
         {"two words"s, " leads"s, "trails "s, "q\"uo'te"s, "\xe4\xf6\xff"s, "esc\\#012aped"s,
          "tab\tname"s, "cr\r"s, "SENT: a"s, "sender removed a"s, "-x"s, "#"s, "."s}) {
        const std::string sent = std::string("SENT: ").append(name).append("\n");
        expectReport(std::string(sent).append("sender removed ").append(name).append("\n"),
                     std::string(sent).append("CONFIRMED: removed ").append(name).append("\n"));
    }
}

TEST(ReportFilter, HoldsAConfirmationBackUntilItsSentLine) {
    ReportFilter filter = filterOf({"link", "a"});
    filter.takeOutput("sender removed link\nSENT: a\n");
    EXPECT_EQ(filter.takeReport(), "SENT: a\n");
    EXPECT_FALSE(filter.hasConfirmed());
    filter.takeOutput("SENT: link\n");
    EXPECT_EQ(filter.takeReport(), "SENT: link\nCONFIRMED: removed link\n");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "");
}

TEST(ReportFilter, ReleasesAtTheEndWhatNeverWasSent) {
    expectReport(
        "sender removed z\nsender removed y\nSENT: y\nsender removed x\nother\n",
        "SENT: y\nCONFIRMED: removed y\nother\nCONFIRMED: removed z\nCONFIRMED: removed x\n");
}

TEST(ReportFilter, DropsASentLineThatComesAfterTheConfirmation) {
    expectReport("sender removed a\nSENT: a\nSENT: a\nSENT: b\n",
                 "SENT: a\nCONFIRMED: removed a\nSENT: b\n");
}

TEST(ReportFilter, ConfirmsOnceAFileThatWasSentTwice) {
    expectReport("SENT: a\nSENT: a\nsender removed a\nSENT: a\n",
                 "SENT: a\nSENT: a\nCONFIRMED: removed a\n");
}

TEST(ReportFilter, ConfirmsOnceAFileThatWasRemovedTwice) {
    const std::string once = "SENT: a\nCONFIRMED: removed a\n";
    expectReport("SENT: a\nsender removed a\nsender removed a\n", once);
    expectReport("sender removed a\nsender removed a\nSENT: a\nsender removed a\n", once);
    expectReport("sender removed a\nsender removed a\n", "CONFIRMED: removed a\n");
}

TEST(ReportFilter, NeverTakesErrorOutputForAConfirmation) {
    ReportFilter filter = filterOfLetters();
    filter.takeErrorOutput("sender removed a\nrsync: sender removed b\n");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "sender removed a\nrsync: sender removed b\n");
    EXPECT_FALSE(filter.hasConfirmed());
}

TEST(ReportFilter, LetsNoLineOfRsyncReadAsOneOfItsOwn) {
    expectReport("CONFIRMED: removed a\n \t CONFIRMED: x y\nCONFIRMED:\nCONFIRMED:\0z\n"s,
                 "rsync: CONFIRMED: removed a\nrsync:  \t CONFIRMED: x y\nrsync: CONFIRMED:\n"
                 "rsync: CONFIRMED:\0z\n"s);
    ReportFilter filter = filterOfLetters();
    filter.takeErrorOutput("SENT: a\nCONFIRMED: removed a\nSENT:b\n");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "rsync: SENT: a\nrsync: CONFIRMED: removed a\nSENT:b\n");
    EXPECT_FALSE(filter.wasSent("a"));
    EXPECT_FALSE(filter.hasConfirmed());
}

TEST(ReportFilter, LetsNoLineOfRsyncReadAsOneOfTheDaemonsLog) {
    const std::string misleading = "++ RSYNC OUTPUT END ++\n \t++\n+++x\nCopied 3 files\n Copied\n";
    const std::string shown = "rsync: ++ RSYNC OUTPUT END ++\nrsync:  \t++\nrsync: +++x\n"
                              "rsync: Copied 3 files\nrsync:  Copied\n";
    expectReport(misleading, shown);
    ReportFilter filter = filterOfLetters();
    filter.takeErrorOutput(misleading);
    EXPECT_EQ(filter.takeReport(), shown);
    const std::string others = "+ +\nx ++\nCopied: 3\nCopiedx\ncopied\n";
    expectReport(others, others);
}

TEST(ReportFilter, DoesNotTrustALineThatMayHaveBeenCutOff) {
    expectReport("SENT: a\nsender removed a", "SENT: a\nsender removed a\n");
    expectReport("SENT: a", "rsync: SENT: a\n");
    ReportFilter filter = filterOfLetters();
    filter.takeOutput("SENT: a");
    filter.takeErrorOutput("no end");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "rsync: SENT: a\nno end\n");
    EXPECT_FALSE(filter.wasSent("a"));
}

TEST(ReportFilter, KeepsTheLinesOfTheTwoStreamsApart) {
    ReportFilter filter = filterOfLetters();
    filter.takeOutput("SENT: ");
    filter.takeErrorOutput("rsync: some");
    filter.takeOutput("a\nsender rem");
    filter.takeErrorOutput(" error\n");
    filter.takeOutput("oved a\n");
    EXPECT_EQ(filter.takeReport(), "SENT: a\nrsync: some error\nCONFIRMED: removed a\n");
}

TEST(ReportFilter, BreaksLongLines) {
    constexpr std::size_t limit = LineAssembly::limit;
    const std::string x(limit, 'x');
    const std::string twice(2 * limit, 'x');
    std::string broken = x + "\n";
    broken += x + "\nrest\n";
    expectReport(x + "\n", x + "\n");
    for (const std::size_t portion : {std::size_t{1}, std::size_t{999}, std::size_t{100000}}) {
        EXPECT_EQ(reportOf(twice + "rest\n", portion), broken);
    }
}

TEST(ReportFilter, DoesNotKeepALineWithoutEnd) {
    ReportFilter filter = filterOfLetters();
    const std::string portion(LineAssembly::limit, 'x');
    filter.takeOutput(portion);
    for (int round = 0; round < 100; ++round) {
        filter.takeOutput(portion);
        EXPECT_EQ(filter.takeReport(), portion + "\n");
    }
}

TEST(ReportFilter, NeverSendsOrConfirmsByALongLine) {
    constexpr std::size_t limit = LineAssembly::limit;
    const std::string name(limit, 'n');
    // Each piece is a line for the reader: at its beginning, in the middle, on either output.
    for (const std::string& text :
         {"sender removed " + name, "SENT: " + name, "CONFIRMED: removed " + name,
          name + "sender removed a", name + "SENT: a", name + "CONFIRMED: removed a",
          name + name + "  CONFIRMED: x a", std::string(limit - 1, ' ') + "CONFIRMED: x a"}) {
        ReportFilter filter = filterOfLetters();
        filter.takeOutput(text + "\n");
        filter.takeErrorOutput(text + "\n");
        filter.finish();
        const std::string report = filter.takeReport();
        std::size_t begin = 0;
        for (std::size_t end = report.find('\n'); end != std::string::npos;
             begin = end + 1, end = report.find('\n', begin)) {
            const std::string line = report.substr(begin, end - begin);
            EXPECT_LE(line.size(), 1022U);
            const std::string word =
                line.substr(std::min(line.size(), line.find_first_not_of(' ')));
            EXPECT_NE(word.substr(0, 5), "SENT:") << text.substr(0, 20);
            EXPECT_NE(word.substr(0, 10), "CONFIRMED:") << text.substr(0, 20);
        }
        EXPECT_FALSE(filter.hasConfirmed());
    }
}

TEST(ReportFilter, ConfirmsNoNameThatTheReaderWouldCut) {
    ReportFilter filter = filterOfLetters();
    const std::string fits(ReportFilter::longestName, 'n');
    filter.confirm(fits + "x");
    filter.confirmRecovered(fits + "x");
    EXPECT_EQ(filter.takeReport(), "");
    filter.confirm(fits);
    filter.confirmRecovered(fits);
    EXPECT_EQ(filter.takeReport(),
              "CONFIRMED: removed " + fits + "\nCONFIRMED: recovered " + fits + "\n");
}

TEST(ReportFilter, CutsARemarkThatItsReaderWouldTakeForTwo) {
    const std::string remark = "rsync_orbelin: left out: ";
    const std::string filler(1023 - remark.size(), 'x');
    ReportFilter filter = filterOfLetters();
    filter.remark(remark + filler + "CONFIRMED: removed a");
    EXPECT_EQ(filter.takeReport(), (remark + filler).substr(0, LineAssembly::limit) + "\n");
    filter.remark(remark);
    EXPECT_EQ(filter.takeReport(), remark + "\n");
}

TEST(ReportFilter, ConfirmsNothingThatWasNotToBeCopied) {
    ReportFilter filter = filterOf({"a"});
    filter.takeOutput("SENT: b\nsender removed b\nsender removed c\nSENT: a\nsender removed a\n");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "SENT: b\nsender removed b\nsender removed c\nSENT: a\n"
                                   "CONFIRMED: removed a\n");
    EXPECT_FALSE(filter.wasSent("b"));
}

TEST(ReportFilter, CountsTheFilesThatCouldNotBeCreatedOrPutInPlace) {
    const std::string complaints =
        "rsync: [receiver] mkstemp \"/x/.a.R4\" failed: Read-only file system (30)\n"
        "rsync: mkstemp \"/x/.a.R4\" failed: Permission denied (13)\n"
        "rsync: [sender] mkstemp\n";
    ReportFilter filter = filterOfLetters();
    filter.takeErrorOutput(complaints);
    EXPECT_EQ(filter.takeReport(), complaints);
    filter.takeOutput("rsync: [receiver] mkstemp \"/x\"\n");
    EXPECT_EQ(filter.receiverFailures(), 2U);
    // Of one file: the first line is no failure yet.
    filter.takeErrorOutput("rsync: [receiver] stat \"/x/.a.R4\" failed: No such file (2)\n"
                           "rsync: [receiver] rename \"/x/.a.R4\" -> \"a\": No such file (2)\n"
                           "rsync: rename \"/x/.b.R4\" -> \"b\": No such file (2)\n");
    EXPECT_EQ(filter.receiverFailures(), 4U);
    filter.beginPass(Pass::copy);
    EXPECT_EQ(filter.receiverFailures(), 0U);
}

TEST(ReportFilter, SaysOfASentFileNothingUntilItIsRemoved) {
    ReportFilter filter = filterOfLetters();
    filter.beginPass(Pass::copy);
    filter.takeOutput("SENT: a\nSENT: b\nSENT: a\nSENT: sub/\nSENT: other\nmore\n");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "SENT: other\nmore\n");
    EXPECT_TRUE(filter.wasSent("a"));
    EXPECT_FALSE(filter.wasSent("c"));
    filter.beginPass(Pass::remove);
    filter.takeOutput("sender removed b\nsender removed c\n");
    EXPECT_EQ(filter.takeReport(), "SENT: b\nCONFIRMED: removed b\nCONFIRMED: removed c\n");
    filter.takeOutput("sender removed b\nSENT: b\nsender removed a\n");
    EXPECT_EQ(filter.takeReport(), "SENT: a\nCONFIRMED: removed a\n");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "");
}

TEST(ReportFilter, TakesNoRemovalFromARsyncThatDoesNotRemove) {
    // The share can print any line; nothing that is sent is durable yet.
    ReportFilter filter = filterOfLetters();
    filter.beginPass(Pass::copy);
    filter.takeOutput("SENT: a\nsender removed a\nsender removed b\n");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "sender removed a\nsender removed b\n");
    EXPECT_FALSE(filter.hasConfirmed());
    filter.beginPass(Pass::remove);
    filter.takeOutput("sender removed a\n");
    EXPECT_EQ(filter.takeReport(), "SENT: a\nCONFIRMED: removed a\n");
}

TEST(ReportFilter, ConfirmsFromElsewhereWhatWasSentInSilence) {
    ReportFilter filter = filterOfLetters();
    filter.beginPass(Pass::copy);
    filter.takeOutput("SENT: a\n");
    filter.beginPass(Pass::remove);
    filter.confirm("a");
    filter.confirm("b");
    EXPECT_EQ(filter.takeReport(), "SENT: a\nCONFIRMED: removed a\nCONFIRMED: removed b\n");
    filter.giveUp("a");
    EXPECT_EQ(filter.takeReport(), "");
}

TEST(ReportFilter, SaysAtLeastThatAFileWasSentIfNobodyKnowsMore) {
    ReportFilter filter = filterOfLetters();
    filter.beginPass(Pass::copy);
    filter.takeOutput("SENT: a\nSENT: b\n");
    filter.giveUp("a");
    filter.giveUp("a");
    filter.giveUp("c");
    EXPECT_EQ(filter.takeReport(), "SENT: a\n");
    EXPECT_FALSE(filter.hasConfirmed());
    // A second SENT line for it would have its reader wait for a second confirmation.
    filter.confirm("a");
    EXPECT_EQ(filter.takeReport(), "CONFIRMED: removed a\n");
    filter.beginPass(Pass::copyAndRemove);
    filter.takeOutput("SENT: c\n");
    filter.giveUp("c");
    EXPECT_EQ(filter.takeReport(), "SENT: c\n");
}

TEST(ReportFilter, TellsNotOfFilesThatChangedSinceTheyWereCopied) {
    ReportFilter filter = filterOfLetters();
    filter.beginPass(Pass::remove);
    filter.takeErrorOutput("rsync: [receiver] mkstemp \"/proc/.a.R4\" failed: No such file or "
                           "directory (2)\nrsync: other\n");
    EXPECT_EQ(filter.takeReport(), "rsync: other\n");
    EXPECT_EQ(filter.receiverFailures(), 1U);
}

TEST(ReportFilter, ReleasesAHeldBackRemovalAtTheEndOfItsPass) {
    ReportFilter filter = filterOfLetters();
    filter.beginPass(Pass::copyAndRemove);
    filter.takeOutput("sender removed a\n");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "CONFIRMED: removed a\n");
    filter.beginPass(Pass::copyAndRemove);
    filter.takeOutput("SENT: a\nsender removed a\nsender removed b\nSENT: b\n");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "SENT: b\nCONFIRMED: removed b\n");
}

TEST(ReportFilter, ForgetsARemovalOfWhatIsNotInPlace) {
    ReportFilter filter = filterOf({"nowhere"});
    filter.takeOutput("sender removed nowhere\n");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "sender removed nowhere\n");
    filter.beginPass(Pass::copyAndRemove);
    filter.takeOutput("SENT: nowhere\n");
    filter.finish();
    EXPECT_EQ(filter.takeReport(), "SENT: nowhere\n");
    EXPECT_FALSE(filter.hasConfirmed());
}

TEST(ReportFilter, TakesConfirmationsFromElsewhere) {
    ReportFilter filter = filterOfLetters();
    filter.takeOutput("SENT: a\nSENT: b\nsender removed b\n");
    filter.finish();
    filter.takeReport();
    EXPECT_TRUE(filter.wasSent("a"));
    EXPECT_FALSE(filter.wasSent("b"));
    EXPECT_TRUE(filter.wasConfirmed("b"));
    EXPECT_FALSE(filter.wasConfirmed("a"));
    filter.confirm("a");
    filter.confirm("a");
    filter.confirm("b");
    EXPECT_EQ(filter.takeReport(), "CONFIRMED: removed a\n");
    EXPECT_TRUE(filter.wasConfirmed("a"));
    EXPECT_FALSE(filter.wasSent("a"));
    EXPECT_FALSE(filter.wasSent("unknown"));
    EXPECT_FALSE(filter.wasConfirmed("unknown"));
}

TEST(ReportFilter, RemembersWhatRsyncComplainedAbout) {
    ReportFilter filter =
        filterOf({"g one", "q\"u", "out", "x", "torn", "again", "data/x"}, "/data/");
    filter.takeErrorOutput(
        "rsync: [sender] link_stat \"/data/g one\" (in ramdisk) failed: No such file or directory "
        "(2)\n"
        "file has vanished: \"/data/q\"u\" (in ramdisk)\n"
        "file has vanished: \"/data/unlisted\" (in ramdisk)\n"
        "file has vanished: \"/x\" (in ramdisk)\n"
        "ERROR: torn failed verification -- update discarded.\n"
        "ERROR: unlisted failed verification -- update discarded.\n"
        "WARNING: again failed verification -- update discarded (will try again).\n"
        "rsync: [receiver] rename \"/data/x\" -> \"y\": Permission denied (13)\n"
        "\" (in \n");
    filter.takeOutput("rsync: link_stat \"/data/out\" (in ramdisk) failed\n");
    EXPECT_TRUE(filter.wasComplainedAbout("g one"));
    EXPECT_TRUE(filter.wasComplainedAbout("q\"u"));
    for (const char* name : {"out", "x", "data/x", "torn", "unlisted"}) {
        EXPECT_FALSE(filter.wasComplainedAbout(name)) << name;
    }
    EXPECT_TRUE(filter.wasDiscarded("torn"));
    EXPECT_FALSE(filter.wasDiscarded("again"));
    EXPECT_FALSE(filter.wasDiscarded("unlisted"));
}

TEST(ReportFilter, NoticesThatTheFileListCame) {
    ReportFilter filter = filterOfLetters();
    filter.takeOutput("receiving file list ... ");
    EXPECT_FALSE(filter.sawFileList());
    filter.takeOutput("done\n");
    EXPECT_TRUE(filter.sawFileList());
    filter.beginPass(Pass::copyAndRemove);
    EXPECT_FALSE(filter.sawFileList());
}

} // namespace
} // namespace confirming
