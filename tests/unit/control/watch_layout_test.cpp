// The whole screen of the live view, for screens of any size and daemons in any state.
#include "control/display_text.h"
#include "control/observe/verdict.h"
#include "control/observe/watch_layout.h"
#include "example_snapshot.h"

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <ctime>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class WatchLayout : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
    void TearDown() override { std::setlocale(LC_CTYPE, "C"); }

    std::vector<std::string> screen() const {
        std::vector<std::string> lines;
        for (const Line& line : layOut(snapshot, view).lines) {
            lines.push_back(plainText(line));
        }
        return lines;
    }

    /// The style of the first piece of the screen that has this in it.
    Style styleOf(const std::string& text) const {
        for (const Line& line : layOut(snapshot, view).lines) {
            for (const Segment& segment : line) {
                if (segment.text.find(text) != std::string::npos) {
                    return segment.style;
                }
            }
        }
        ADD_FAILURE() << text << " is not on the screen";
        return Style::normal;
    }

    void giveDetectors(int number) {
        snapshot.detectors.clear();
        for (int each = 1; each <= number; ++each) {
            snapshot.detectors.push_back(exampleDetector(std::to_string(each)));
        }
    }

    Snapshot snapshot = exampleSnapshot();
    View view;
};

// Longer than the linter likes because a picture is.
TEST_F(WatchLayout, ShowsAllOfTwoDetectorsOnAnOldTerminal) {
    view.height = 19;
    DetectorSnapshot& second = snapshot.detectors[1];
    second.state = DetectorSnapshot::State::unreachable;
    second.complaint = "Connection refused";
    second.failingSince = exampleTime - 3600;
    second.copyProcesses = 0;
    snapshot.detectors[0].cycleSeconds = 12;
    snapshot.detectors[0].dealt = 800;
    snapshot.detectors[0].finished = 210;
    snapshot.lastComplaint = "rsync: link_stat \"/x\033[2J\" failed";
    EXPECT_THAT(
        screen(),
        testing::ElementsAre(
            "NOT KEEPING UP: detector 2 (127.0.0.2) can't be listed since 11:00: Connection",
            "    refused",
            "Daemon 812 up 1 h 0 min (since 2026-03-01 11:00:00), options -u 1000:100", //
            "",                                                                         //
            "Files 24,690, 10.0 GiB  120/s, 49 MB/s now  98/s over 5 min   ▁▂▄█▇█▂  peak 80/s",
            "lost 0  not announced 0  no pipe 0  failed starts 0  failed listings 0", //
            "",                                                                       //
            "DETECTOR   STATE       PROCESSES          FILES    BYTES LAST FILE",
            "1          copying     ███░░░░░ 3/8      12,345  5.0 GiB run1/frame_000123.raw",
            "  ██░░░░░░ 300 GiB of 400 GiB free  cycle: 210 of 800 names, 12 s  /srv/i…es/1/.",
            "2          unreachable ░░░░░░░░ 0/8      12,345  5.0 GiB Connection refused",
            "  ██░░░░░░ 300 GiB of 400 GiB free  /srv/images/2/.",
            "", //
            "Pipe read by vantrel (411)  /var/run/vantrel_orbelin_files",
            "Log  ████░░░░ 512 KiB of 1.0 MiB  counts since the start  3 archives, 2 rotatio…",
            "Last complaint rsync: link_stat \"/x\\033[2J\" failed", //
            "",                                                      //
            "", "q quit  h help  space pause  r redraw                                  12:00:00"));
    EXPECT_EQ(styleOf("unreachable"), Style::bad);
    EXPECT_EQ(styleOf("Connection refused"), Style::bad);
}

TEST_F(WatchLayout, HasOneLineForEachDetectorOnAWideTerminal) {
    view.width = 150;
    view.height = 14;
    snapshot.detectors[1].secondsUntilFull = 12 * 60;
    snapshot.detectors[1].freeInodes = 12345678;
    snapshot.detectors[1].totalInodes = 100000000;
    EXPECT_THAT(
        screen(),
        AllOf(
            Contains("DETECTOR     STATE       PROCESSES          FILES    BYTES FREE AT TARGET  "
                     "                            LAST FILE"),
            Contains("1            copying     ███░░░░░ 3/8      12,345  5.0 GiB ██░░░░░░ 300 GiB "
                     "free                       run1/frame_000123.raw"),
            Contains("2            copying     ███░░░░░ 3/8      12,345  5.0 GiB ██░░░░░░ 300 GiB "
                     "free, full in 12 min       run1/frame_000123.raw")));
}

TEST_F(WatchLayout, IsWholeAsAPlainReport) {
    giveDetectors(50);
    snapshot.pipe.state = PipeSnapshot::State::noReader;
    for (DetectorSnapshot& detector : snapshot.detectors) {
        detector.state = DetectorSnapshot::State::unreachable;
        detector.complaint = "refused\033[2J";
    }
    const std::string text = watchText(snapshot, true);
    for (int number = 1; number <= 50; ++number) {
        const std::string id = std::to_string(number);
        EXPECT_THAT(text, HasSubstr("\n" + id + " "));
        std::string told = "detector ";
        told.append(id).append(" (127.0.0.").append(id).append(") can't be listed");
        EXPECT_THAT(text, HasSubstr(told));
    }
    EXPECT_EQ(text.find('\033'), std::string::npos);
    EXPECT_EQ(text.find(" \n"), std::string::npos);
    EXPECT_EQ(text.find("q quit"), std::string::npos);
}

TEST_F(WatchLayout, SaysWhatACopyProgramWithoutFiguresDoesNotTell) {
    snapshot.hasFigures = false;
    for (DetectorSnapshot& detector : snapshot.detectors) {
        detector.figures.reset();
    }
    EXPECT_THAT(screen().front(), StartsWith("KEEPING UP: files are coming in, as far as can be"));
    EXPECT_THAT(screen(), Contains(HasSubstr("3/8           -        - not known")));
}

TEST_F(WatchLayout, SaysTheSameInAscii) {
    view.unicode = false;
    snapshot.detectors[0].id = "größe";
    const auto lines = screen();
    for (const std::string& line : lines) {
        EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char each) {
            return each >= 0x20 && each < 0x7f;
        })) << line;
    }
    EXPECT_THAT(lines, Contains("2          copying     ###..... 3/8      12,345  5.0 GiB "
                                "run1/frame_000123.raw"));
    EXPECT_THAT(lines, Contains(StartsWith("gr\\3..237e ")));
}

TEST_F(WatchLayout, ShowsAllThatMattersOfFourDetectorsOnAnOldTerminal) {
    giveDetectors(4);
    snapshot.counts.lost = 2;
    snapshot.missing = 2;
    snapshot.recent.lost = 1;
    snapshot.lastComplaint = "some complaint";
    const auto lines = screen();
    ASSERT_EQ(lines.size(), 24U);
    EXPECT_THAT(lines,
                AllOf(Contains(StartsWith("KEEPING UP, BUT: 2 files were sent and not confirmed")),
                      Contains(StartsWith("Daemon 812")), Contains(StartsWith("Files ")),
                      Contains(StartsWith("lost 2!"))));
    EXPECT_THAT(lines, AllOf(Contains(StartsWith("1 ")), Contains(StartsWith("2 ")),
                             Contains(StartsWith("3 ")), Contains(StartsWith("4 "))));
    EXPECT_THAT(lines, AllOf(Contains(StartsWith("Pipe ")), Contains(StartsWith("Log ")),
                             Contains(StartsWith("Last complaint"))));
    EXPECT_EQ(layOut(snapshot, view).maxScroll, 0);
}

TEST_F(WatchLayout, ScrollsTheDetectorsThatThereIsNoRoomFor) {
    giveDetectors(20);
    view.height = 24;
    const int most = layOut(snapshot, view).maxScroll;
    ASSERT_GT(most, 0);
    const std::string shown = std::to_string(20 - most);
    EXPECT_THAT(screen(), AllOf(Contains(HasSubstr("1-" + shown + " of 20 (j/k)")),
                                Contains(StartsWith("1  ")), Not(Contains(StartsWith("20 ")))));
    view.scroll = most;
    EXPECT_THAT(screen(), AllOf(Contains(HasSubstr(std::to_string(most + 1) + "-20 of 20 (j/k)")),
                                Not(Contains(StartsWith("1  "))), Contains(StartsWith("20 ")),
                                Contains(StartsWith("Pipe "))));
    const auto end = screen();
    view.scroll = most + 1000;
    EXPECT_EQ(screen(), end);
    view.scroll = -5;
    EXPECT_THAT(screen(), Contains(StartsWith("1  ")));
}

TEST_F(WatchLayout, NeverPutsMoreOnAScreenThanItHolds) {
    giveDetectors(7);
    snapshot.detectors[2].id = std::string(300, 'x') + "\033[31m\xff測定";
    snapshot.detectors[2].figures->lastFile = std::string(2000, '/');
    snapshot.detectors[3].secondsUntilFull = 10;
    snapshot.detectors[4].freeBytes.reset();
    snapshot.counts.lost = 18446744073709551615ULL;
    snapshot.lastComplaint = std::string(5000, '\033');
    snapshot.pipe.readers.assign(50, "a program with a long name (1234567)");
    for (const bool help : {false, true}) {
        for (const bool unicode : {false, true}) {
            for (int width = 1; width <= 170; width += width < 90 ? 1 : 9) {
                for (int height = 1; height <= 50; height += 7) {
                    view.width = width;
                    view.height = height;
                    view.help = help;
                    view.unicode = unicode;
                    const Layout layout = layOut(snapshot, view);
                    ASSERT_EQ(layout.lines.size(), static_cast<std::size_t>(height));
                    for (const Line& line : layout.lines) {
                        const std::string text = plainText(line);
                        ASSERT_LE(displayWidth(text), width) << text;
                        ASSERT_EQ(text.find('\033'), std::string::npos);
                    }
                }
            }
        }
    }
}

TEST_F(WatchLayout, KeepsTheVerdictOnTheSmallestScreen) {
    view.width = 40;
    view.height = 10;
    snapshot.daemonState = DaemonState::dead;
    snapshot.daemonText.clear();
    EXPECT_EQ(screen().front(), "DOWN: the daemon is dead");
    snapshot.daemonText = "its PID file names a process that has ended";
    EXPECT_THAT(screen(), AllOf(Contains("DOWN: its PID file names a process that"),
                                Contains("    has ended")));
    snapshot.daemonText.clear();
    view.height = 2;
    EXPECT_EQ(screen().front(), "DOWN: the daemon is dead");
    view.height = 1;
    EXPECT_THAT(screen(), testing::SizeIs(1));
}

TEST_F(WatchLayout, SaysSoWhenNoDaemonRuns) {
    snapshot.daemonState = DaemonState::notRunning;
    snapshot.daemonText.clear();
    for (DetectorSnapshot& detector : snapshot.detectors) {
        detector.state = DetectorSnapshot::State::notServed;
        detector.copyProcesses = 0;
    }
    EXPECT_THAT(screen(), AllOf(Contains("DOWN: no daemon runs"),
                                Contains("No daemon runs. The counts are those of the last one."),
                                Contains(HasSubstr("not served"))));
    EXPECT_EQ(styleOf("DOWN"), Style::bad);
}

TEST_F(WatchLayout, ShowsAnEmptySnapshot) {
    snapshot = Snapshot{};
    EXPECT_THAT(screen(), AllOf(Contains(StartsWith("CAN'T TELL: it is not known whether")),
                                Contains("Log  not read!")));
}

TEST_F(WatchLayout, ListsFurtherReasonsBelowTheFirst) {
    view.height = 30;
    snapshot.pipe.state = PipeSnapshot::State::noReader;
    snapshot.detectors[0].freeBytes = 0;
    snapshot.recent.failedStart = 1;
    snapshot.configChanged = true;
    snapshot.log.coverage = LogCoverage::none;
    const auto lines = screen();
    EXPECT_THAT(lines[0], StartsWith("NOT KEEPING UP: nobody reads the pipe"));
    EXPECT_EQ(lines[1], "    stands still until somebody does");
    EXPECT_EQ(lines[2], "  - the target of detector 1 is full: no space left on device");
    EXPECT_THAT(lines[3], StartsWith("  - copy processes or listings could not be started"));
    EXPECT_THAT(lines[4], StartsWith("  - there is no log to read"));
}

TEST_F(WatchLayout, ShowsTheRelaysSubscribersWhereOneRuns) {
    EXPECT_THAT(screen(), Not(Contains(StartsWith("Relay"))));
    snapshot.relay =
        RelaySnapshot{12345, "", {{"storage", 0, 0, ""}, {"viewer\033", 1234, 90, ""}}};
    EXPECT_THAT(screen(), Contains(StartsWith("Relay 12,345 records, storage has all, "
                                              "viewer\\033 1,234 behind for 1 min")));
    EXPECT_EQ(styleOf("behind for"), Style::warning);
}

TEST_F(WatchLayout, TellsAPipeThatIsHeldFromOneThatIsRead) {
    snapshot.pipe.state = PipeSnapshot::State::held;
    snapshot.pipe.readers.clear();
    EXPECT_THAT(screen(), Contains(StartsWith("Pipe held by systemd, which starts its reader")));
    EXPECT_EQ(verdict(snapshot).level, Verdict::Level::keepingUp);
}

TEST_F(WatchLayout, MarksWhatIsWrongWithSignsToo) {
    snapshot.counts.lost = 4;
    snapshot.detectors[0].freeBytes = 2ULL << 30;
    snapshot.pipe.state = PipeSnapshot::State::noReader;
    snapshot.log.coverage = LogCoverage::none;
    snapshot.log.problem = "it can't be opened";
    EXPECT_THAT(screen(), AllOf(Contains(HasSubstr("lost 4!")),
                                Contains(HasSubstr("2.0 GiB of 400 GiB free!")),
                                Contains(StartsWith("Pipe no reader!")),
                                Contains("Log  not read! it can't be opened")));
    EXPECT_EQ(styleOf("NOT KEEPING UP"), Style::bad);
    EXPECT_EQ(styleOf("no reader!"), Style::bad);
}

TEST_F(WatchLayout, TellsThatItIsPaused) {
    view.paused = true;
    EXPECT_EQ(screen().back(), "PAUSED at 12:00:00  q quit  h help  space go on  r redraw");
}

TEST_F(WatchLayout, ExplainsItselfAndScrollsThat) {
    view.help = true;
    const auto top = screen();
    EXPECT_EQ(top.front(), "Keys");
    EXPECT_THAT(top.back(), HasSubstr("j more"));
    view.scroll = layOut(snapshot, view).maxScroll;
    ASSERT_GT(view.scroll, 0);
    const auto end = screen();
    EXPECT_THAT(end.back(), HasSubstr("k back up"));
    EXPECT_THAT(end, Contains(HasSubstr("who has it open for reading, and whether")));
}

TEST(Sparkline, IsAsHighAsItsHighestValue) {
    EXPECT_EQ(sparkline({0, 1, 2, 4, 8}, 5, true), " ▁▂▄█");
    EXPECT_EQ(sparkline({0, 1, 2, 4, 8}, 5, false), " _.-#");
    EXPECT_EQ(sparkline({0.001, 1000}, 2, true), "▁█");
}

TEST(Sparkline, KeepsTheNewestAtTheRight) {
    EXPECT_EQ(sparkline({8, 1, 8}, 2, true), "▁█");
    EXPECT_EQ(sparkline({8}, 3, true), "  █");
    EXPECT_EQ(sparkline({}, 3, true), "   ");
    EXPECT_EQ(sparkline({0, 0}, 2, true), "  ");
    EXPECT_EQ(sparkline({1}, 0, true), "");
    EXPECT_EQ(sparkline({1}, -1, true), "");
}

TEST(Bar, IsEmptyOnlyAtNothingAndFullOnlyAtAll) {
    EXPECT_EQ(bar(0, 4, false), "....");
    EXPECT_EQ(bar(0.001, 4, false), "#...");
    EXPECT_EQ(bar(0.5, 4, false), "##..");
    EXPECT_EQ(bar(0.999, 4, false), "###.");
    EXPECT_EQ(bar(1, 4, false), "####");
    EXPECT_EQ(bar(7, 4, false), "####");
    EXPECT_EQ(bar(-1, 4, false), "....");
    EXPECT_EQ(bar(0.5, 0, false), "");
}

} // namespace

} // namespace control
