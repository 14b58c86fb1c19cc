// When did what begin and end: what is noted, kept, and made of it.
#include "control/event_journal.h"
#include "control/observe/event_watch.h"
#include "example_snapshot.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

TEST(EventJournal, KeepsLinesWithTheirTimeAndForgetsTheOldest) {
    std::filesystem::remove(eventJournalPath());
    ASSERT_EQ(noteEvents({"one", "two\n\033"}), "");
    auto events = readEvents();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].text, "one");
    EXPECT_EQ(events[1].text, "two\\012\\033");
    EXPECT_NEAR(events[0].time, static_cast<double>(std::time(nullptr)), 60);
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(noteEvents({std::string(100000, 'x'), "number " + std::to_string(i)}), "");
    }
    EXPECT_LT(std::filesystem::file_size(eventJournalPath()), 1200000U);
    events = readEvents();
    EXPECT_EQ(events.back().text, "number 29");
    EXPECT_NE(events.front().text, "one");
    std::filesystem::remove(eventJournalPath());
}

TEST(Deaths, AreEndsThatNobodyAskedFor) {
    const double now = 1e9;
    const std::string ended(daemonEnded);
    EXPECT_EQ(deathsIn({}, now).lastDay, 0);
    const Deaths deaths = deathsIn({{now - 90000, ended + " (process 1)"},
                                    {now - 500, ended + " by SIGKILL, says systemd"},
                                    {now - 499, ended + " (process 2)"},
                                    {now - 300, std::string(toldToEnd)},
                                    {now - 299, ended + " (process 3)"},
                                    {now - 298, ended + " by SIGKILL, says systemd"},
                                    {now - 100, ended + " (process 4)"},
                                    {now - 99, ended + " by SIGPIPE, says systemd"}},
                                   now);
    EXPECT_EQ(deaths.lastDay, 2);
    EXPECT_EQ(deaths.last, now - 99);
    EXPECT_EQ(deaths.how, "SIGPIPE");
}

class EventWatchTest : public testing::Test {
protected:
    std::vector<std::string> look(double seconds) {
        snapshot.uptime += seconds;
        return watch.changes(snapshot);
    }

    Snapshot snapshot = exampleSnapshot();
    EventWatch watch;
};

TEST_F(EventWatchTest, TellsWhenTheDaemonEndsAndStarts) {
    EXPECT_THAT(look(0),
                ElementsAre("skarnctl looks from here on", "the daemon runs (process 812)"));
    EXPECT_THAT(look(1), IsEmpty());
    snapshot.pid = 900;
    EXPECT_THAT(look(1),
                ElementsAre("the daemon ended (process 812)", "the daemon started (process 900)"));
    snapshot.daemonState = DaemonState::dead;
    EXPECT_THAT(look(1), ElementsAre("the daemon ended (process 900)"));
}

TEST_F(EventWatchTest, TellsWhatBeginsAndWhenItIsOver) {
    look(0);
    snapshot.pipe.state = PipeSnapshot::State::noReader;
    EXPECT_THAT(look(1), ElementsAre(StartsWith("nobody reads the pipe")));
    EXPECT_THAT(look(90), IsEmpty());
    snapshot.pipe.state = PipeSnapshot::State::read;
    EXPECT_THAT(look(1), IsEmpty()) << "it may come again at once";
    EXPECT_THAT(look(5), ElementsAre(StartsWith("over after 1 min: nobody reads the pipe")));
}

TEST_F(EventWatchTest, TellsOfWhatIsCountedOnceAMinuteAtMost) {
    snapshot.counts.lost = 5;
    look(0);
    EXPECT_THAT(look(1), IsEmpty()) << "that was before its time";
    snapshot.counts.lost = 7;
    EXPECT_THAT(look(1), ElementsAre("2 files reported lost"));
    snapshot.counts.lost = 9;
    EXPECT_THAT(look(1), IsEmpty());
    snapshot.counts.lost = 10;
    EXPECT_THAT(look(60), ElementsAre("3 files reported lost"));
    snapshot.counts.lost = 1; // of a new daemon
    EXPECT_THAT(look(60), ElementsAre("1 files reported lost"));
}

TEST(ParseMoment, TakesDurationsAndDates) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    EXPECT_EQ(parseMoment("90s", 1000), 910);
    EXPECT_EQ(parseMoment("2 min", 1000), 880);
    EXPECT_EQ(parseMoment("2h", 10000), 2800);
    EXPECT_EQ(parseMoment("0.5d", 100000), 56800);
    EXPECT_EQ(parseMoment("2026-03-01 12:00", 0), 1772366400);
    EXPECT_EQ(parseMoment("2026-03-01 12:00:05", 0), 1772366405);
    EXPECT_EQ(parseMoment("2026-03-01", 0), 1772323200);
    for (const char* const text : {"", "2", "h", "-2h", "2 years", "yesterday", "nan h"}) {
        EXPECT_EQ(parseMoment(text, 0), std::nullopt) << text;
    }
}

} // namespace

} // namespace control
