// Reading report lines and keeping the account.
#include "transfer/report.h"

#include <string>

#include <gtest/gtest.h>

namespace {

/// A line's kind and name as one text.
std::string parsed(std::string_view piece) {
    const ReportLine line = parseReportLine(piece);
    switch (line.kind) {
    case ReportLine::Kind::skipped:
        return "skipped " + std::string(line.name);
    case ReportLine::Kind::sent:
        return "sent " + std::string(line.name);
    case ReportLine::Kind::confirmed:
        return "confirmed " + std::string(line.name);
    case ReportLine::Kind::output:
        return "output " + std::string(line.name);
    }
    return "unknown";
}

const std::string begin = "++ RSYNC OUTPUT BEGIN ++++++++++++++++++\n";
const std::string end = "++ RSYNC OUTPUT END ++++++++++++++++++++\n";

} // namespace

TEST(ParseReportLine, ReadsASentLine) {
    EXPECT_EQ(parsed("SENT: a/b.dat\n"), "sent a/b.dat");
    EXPECT_EQ(parsed("SENT: a"), "sent a");
}

TEST(ParseReportLine, ReadsAConfirmedLineWhoseNameIsTheThirdWord) {
    EXPECT_EQ(parsed("CONFIRMED: removed a/b.dat\n"), "confirmed a/b.dat");
    EXPECT_EQ(parsed("CONFIRMED: x a"), "confirmed a");
}

TEST(ParseReportLine, CutsANameAtItsFirstBlank) {
    EXPECT_EQ(parsed("SENT: my file\n"), "sent my");
    EXPECT_EQ(parsed("CONFIRMED: x my file\n"), "confirmed my");
}

TEST(ParseReportLine, GivesAnEmptyNameWhenTheLineHasNone) {
    EXPECT_EQ(parsed("SENT:\n"), "sent ");
    EXPECT_EQ(parsed("SENT:   \n"), "sent ");
    EXPECT_EQ(parsed("CONFIRMED:\n"), "confirmed ");
    EXPECT_EQ(parsed("CONFIRMED: x\n"), "confirmed ");
    EXPECT_EQ(parsed("CONFIRMED: x   \n"), "confirmed ");
}

TEST(ParseReportLine, SkipsLeadingAndRepeatedWhiteSpace) {
    EXPECT_EQ(parsed("  \t SENT:\t a \r\n"), "sent a");
    EXPECT_EQ(parsed("\v\fCONFIRMED:   x \t a\n"), "confirmed a");
}

TEST(ParseReportLine, WantsTheWholeFirstWord) {
    EXPECT_EQ(parsed("SENT:a\n"), "output ");
    EXPECT_EQ(parsed("SENT a\n"), "output ");
    EXPECT_EQ(parsed("sent: a\n"), "output ");
    EXPECT_EQ(parsed("CONFIRMED:x a\n"), "output ");
    EXPECT_EQ(parsed("CONFIRMED x a\n"), "output ");
    EXPECT_EQ(parsed("XSENT: a\n"), "output ");
    EXPECT_EQ(parsed("file SENT: a\n"), "output ");
}

TEST(ParseReportLine, TakesBlankLinesAsOutput) {
    EXPECT_EQ(parsed("\n"), "output ");
    EXPECT_EQ(parsed("   \n"), "output ");
}

TEST(ParseReportLine, SkipsPiecesThatBeginWithANul) {
    EXPECT_EQ(parsed(std::string_view("\0SENT: a", 8)), "skipped ");
    EXPECT_EQ(parsed(""), "skipped ");
}

TEST(ParseReportLine, NeverLooksBehindTheEndOfTheView) {
    const std::string text = "SENT: name_and_more";
    EXPECT_EQ(parsed(std::string_view(text).substr(0, 10)), "sent name");
    EXPECT_EQ(parsed(std::string_view(text).substr(0, 4)), "output ");
}

TEST(TransferAccount, GivesTheTwoMarkersAloneForAnEmptyReport) {
    EXPECT_EQ(TransferAccount().summary(), begin + end);
}

TEST(TransferAccount, ReportsWhatWasSentAndNotConfirmed) {
    TransferAccount account;
    account.addSent("a");
    account.addSent("b");
    account.addConfirmed("a");
    EXPECT_EQ(account.summary(),
              "Error: Lost b\n" + begin + "Copied 1 files in the range of: a ... a\n" + end);
}

TEST(TransferAccount, ReportsANameConfirmedBeforeItWasSentAsLost) {
    TransferAccount account;
    account.addConfirmed("b");
    account.addSent("b");
    EXPECT_EQ(account.summary(),
              "Error: Lost b\n" + begin + "Copied 1 files in the range of: b ... b\n" + end);
}

TEST(TransferAccount, CountsEachConfirmation) {
    TransferAccount account;
    account.addSent("a");
    account.addConfirmed("a");
    account.addConfirmed("a");
    EXPECT_EQ(account.summary(), begin + "Copied 2 files in the range of: a ... a\n" + end);
}

TEST(TransferAccount, CountsAConfirmationOfAFileThatWasNotSent) {
    TransferAccount account;
    account.addConfirmed("x");
    EXPECT_EQ(account.summary(), begin + "Copied 1 files in the range of: x ... x\n" + end);
}

TEST(TransferAccount, NamesTheRangeInOrderOfArrival) {
    TransferAccount account;
    for (const char* name : {"m", "z", "a", "k"}) {
        account.addConfirmed(name);
    }
    EXPECT_EQ(account.summary(), begin + "Copied 4 files in the range of: m ... k\n" + end);
}

TEST(TransferAccount, SortsLostNamesByTheirBytesAndNamesEachOnce) {
    TransferAccount account;
    for (const char* name : {"a", "B", "b", "a", "\xff", "10", "9"}) {
        account.addSent(name);
    }
    EXPECT_EQ(account.summary(), "Error: Lost 10\nError: Lost 9\nError: Lost B\nError: Lost a\n"
                                 "Error: Lost b\nError: Lost \xff\n" +
                                     begin + end);
}

TEST(TransferAccount, ReportsANameSentAgainAfterItsConfirmationAsLost) {
    TransferAccount account;
    account.addSent("a");
    account.addConfirmed("a");
    account.addSent("a");
    EXPECT_EQ(account.summary(),
              "Error: Lost a\n" + begin + "Copied 1 files in the range of: a ... a\n" + end);
    account.addConfirmed("a");
    EXPECT_EQ(account.summary(), begin + "Copied 2 files in the range of: a ... a\n" + end);
}

TEST(TransferAccount, TakesOneConfirmationForANameThatWasSentTwice) {
    TransferAccount account;
    account.addSent("a");
    account.addSent("a");
    account.addConfirmed("a");
    EXPECT_EQ(account.summary(), begin + "Copied 1 files in the range of: a ... a\n" + end);
}

TEST(TransferAccount, FindsManyNamesConfirmedInAnotherOrderThanSent) {
    constexpr int count = 5000;
    TransferAccount account;
    for (int i = 0; i < count; ++i) {
        account.addSent("name_" + std::to_string(i));
    }
    for (int i = count - 1; i > 0; --i) {
        account.addConfirmed("name_" + std::to_string(i));
    }
    EXPECT_EQ(account.summary(), "Error: Lost name_0\n" + begin +
                                     "Copied 4999 files in the range of: name_4999 ... name_1\n" +
                                     end);
}

TEST(TransferAccount, IgnoresEmptyNames) {
    TransferAccount account;
    account.addSent("");
    account.addConfirmed("");
    EXPECT_EQ(account.summary(), begin + end);
}

TEST(TransferAccount, KeepsOtherOutputAsItCameBeforeTheSummaryLine) {
    TransferAccount account;
    account.addOutput("receiving file list\n");
    account.addConfirmed("a");
    account.addOutput("\n");
    account.addOutput("no end");
    EXPECT_EQ(account.summary(), begin +
                                     "receiving file list\n\nno endCopied 1 files in the range "
                                     "of: a ... a\n" +
                                     end);
}
