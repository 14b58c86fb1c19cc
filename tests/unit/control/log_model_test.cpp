// What is counted in the daemon's log, for whom, and what is not believed.
#include "control/observe/log_model.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

const std::string rule(78, '+');
const std::string separator = std::string(60, '+') + "\n ++++\n";
const std::string begin = "++ RSYNC OUTPUT BEGIN ++++++++++++++++++\n";
const std::string end = "++ RSYNC OUTPUT END ++++++++++++++++++++\n";

/// What the daemon logs when it starts.
std::string banner(const std::vector<std::string>& detectors,
                   const std::string& date = "Sat Nov 21 11:59:28 2026") {
    std::string text = "\n\n\n\n" + rule + "\n\n++ skarn 3.7.1 started\n++ on " + date + "\n\n" +
                       rule + "\n\n\n\n\n++\n++ settings:\n++ ---------\n++\n" +
                       "++ logfile: /srv/log/skarn.log\n++    max size of logfile: 4096\n" +
                       "++    max # of backuped logfiles: 2\n\n++ current directory: /\n++\n++\n";
    for (const std::string& id : detectors) {
        text += "++ Starting copy thread for detector " + id + "\n";
    }
    return text;
}

std::string starting(const std::string& id, int processes) {
    return separator + id + " Starting " + std::to_string(processes) + " copy processes\n";
}

std::string call(const std::string& id) {
    return id + ": rsync call: /usr/local/orbelin/bin/rsync_orbelin -vthlDHW  " +
           "--remove-source-files --files-from=/tmp/file_list_39_675403456_0 " +
           "rsync://root@127.0.0.1:49371/ramdisk/ /srv/images/1/./\n";
}

std::string calls(const std::string& id, int processes) {
    std::string text = starting(id, processes);
    for (int i = 0; i < processes; ++i) {
        text += call(id);
    }
    return text;
}

std::string summary(int files, const std::string& first = "a.raw",
                    const std::string& last = "z.raw") {
    return "Copied " + std::to_string(files) + " files in the range of: " + first + " ... " + last +
           "\n";
}

/// A block as a healthy run leaves it.
std::string block(int files, const std::string& last = "z.raw") {
    return begin + "receiving file list ... done\n\n" +
           "sent 3.38K bytes  received 159.28K bytes  325.33K bytes/sec\n" +
           "total size is 152.00K  speedup is 0.93\n" + summary(files, "a.raw", last) + end;
}

std::string removed(const std::string& id, int lists = 1) {
    std::string text;
    for (int i = 0; i < lists; ++i) {
        text += id + ": Removed file /tmp/file_list_39_675403456_" + std::to_string(i) + "\n";
    }
    return text;
}

/// A model that has seen a daemon with these detectors start.
LogModel started(const std::vector<std::string>& detectors) {
    LogModel model;
    model.takeLines(banner(detectors));
    return model;
}

TEST(LogModel, CountsWholeCyclesOfAllDetectors) {
    LogModel model = started({"1", "2"});
    model.takeLines(calls("1", 2) + block(76, "frame_1.raw") + calls("2", 1) +
                    "1: Child process 60 terminated \n" + block(77, "frame_2.raw") +
                    removed("1", 2));
    EXPECT_EQ(model.account().counts.cycles, 2U);
    EXPECT_EQ(model.account().counts.processes, 3U);
    EXPECT_EQ(model.account().counts.reports, 2U);
    EXPECT_EQ(model.account().counts.files, 153U);
    EXPECT_EQ(model.account().counts.complaints, 0U);
    EXPECT_EQ(model.account().lastFile, "frame_2.raw");
    EXPECT_EQ(model.account().lastComplaint, "");
    EXPECT_EQ(model.account().started, "Sat Nov 21 11:59:28 2026");
    EXPECT_EQ(model.account().starts, 1U);
}

TEST(LogModel, BeginsAfreshWithEachBannerThatTheDaemonCanHaveWritten) {
    const std::string later = "Sun Nov 22 00:00:00 2026";
    LogModel model([&later](std::string_view date) { return date == later; });
    model.takeLines(banner({"1"}) + calls("1", 3) + block(5));
    EXPECT_EQ(model.account().starts, 0U) << "a made-up one";
    EXPECT_EQ(model.account().counts.files, 5U);
    model.takeLines(banner({"1", "2"}, later));
    EXPECT_EQ(model.account().starts, 1U);
    EXPECT_EQ(model.account().started, later);
    EXPECT_EQ(model.account().counts.files, 0U);
    model.takeLines(banner({"1"}) + block(7));
    EXPECT_EQ(model.account().starts, 1U);
    EXPECT_EQ(model.account().counts.files, 7U);
}

TEST(LogModel, IsNotDeceivedByABannerWithinABlock) {
    LogModel model = started({"1"});
    model.takeLines(calls("1", 2) + block(5));
    model.takeLines(begin + banner({"2"}) + summary(1) + end);
    EXPECT_EQ(model.account().starts, 1U);
    EXPECT_EQ(model.account().counts.files, 6U);
}

TEST(LogModel, BelievesOfABlockOnlyItsLastLine) {
    LogModel model = started({"1"});
    model.takeLines(calls("1", 1) + begin + summary(1000) + "1 Starting 5 copy processes\n" +
                    "Error: Lost b.raw\n++ Warning: No pipe to VANTREL\n" + "1: rsync call: x\n" +
                    summary(2, "a", "b.raw") + end);
    EXPECT_EQ(model.account().counts.files, 2U);
    EXPECT_EQ(model.account().counts.cycles, 1U);
    EXPECT_EQ(model.account().counts.processes, 1U);
    EXPECT_EQ(model.account().counts.lost, 0U);
    EXPECT_EQ(model.account().counts.withoutPipe, 0U);
    EXPECT_EQ(model.account().counts.complaints, 5U);
}

TEST(LogModel, TakesLinesInPiecesOfAnySize) {
    const std::string text = banner({"1"}) + calls("1", 1) + block(3) + removed("1");
    LogModel model;
    std::size_t begun = 0;
    while (begun < text.size()) {
        const std::size_t lineEnd = text.find('\n', begun) + 1;
        model.takeLines(text.substr(begun, lineEnd - begun));
        begun = lineEnd;
    }
    EXPECT_EQ(model.account().counts.files, 3U);
    EXPECT_EQ(model.account().starts, 1U);
}

TEST(LogModel, TakesASummaryOnlyInItsExactForm) {
    for (const char* const line :
         {"Copied 5 files in the range of: a ... b ", "copied 5 files in the range of: a ... b",
          "Copied 05 files in the range of: a ... b", "Copied 0 files in the range of: a ... b",
          "Copied -5 files in the range of: a ... b", "Copied 5 files in the range of: a b",
          "Copied 5 files in the range of:  ... b", "Copied 5 files in the range of: a ... ",
          "Copied 5 files in the range of: a ... b\tc", "Copied 5 files in the range of: a .. b",
          "Copied 5 file in the range of: a ... b", "Copied  5 files in the range of: a ... b",
          "Copied 5x files in the range of: a ... b", "Copied 1e3 files in the range of: a ... b",
          "Copied 99999999999 files in the range of: a ... b", "5 files in the range of: a ... b",
          "Copied 5 files in the range of: a ... b c"}) {
        LogModel model = started({"1"});
        model.takeLines(calls("1", 1));
        model.takeLines(begin);
        model.takeLines(line);
        model.takeLines(end);
        EXPECT_EQ(model.account().counts.files, 0U) << line;
        EXPECT_EQ(model.account().counts.complaints, 1U) << line;
        EXPECT_EQ(model.account().counts.reports, 1U) << line;
    }
}

TEST(LogModel, FindsTheSummaryBehindAnUnfinishedLine) {
    LogModel model = started({"1"});
    model.takeLines(calls("1", 2) + begin + "rsync: killed in the mid" + summary(4, "Copied", "y") +
                    end + begin + "nothing copied and cut o" + end);
    EXPECT_EQ(model.account().counts.files, 4U);
    EXPECT_EQ(model.account().counts.reports, 2U);
    EXPECT_EQ(model.account().counts.complaints, 1U);
    EXPECT_EQ(model.account().lastComplaint, "nothing copied and cut o");
}

TEST(LogModel, CountsAnEmptyBlockAsAReport) {
    LogModel model = started({"1"});
    model.takeLines(calls("1", 1) + begin + end);
    EXPECT_EQ(model.account().counts.reports, 1U);
    EXPECT_EQ(model.account().counts.complaints, 0U);
    EXPECT_EQ(model.account().counts.files, 0U);
}

TEST(LogModel, CountsWhatGoesWrongWithTheHandoff) {
    LogModel model = started({"1"});
    model.takeLines(
        calls("1", 1) + "++ Warning: No pipe to VANTREL\n" +
        "++ Error: Failed to pass a.raw to VANTREL\n          Broken pipe\n" +
        "++ Error: Failed to pass  to VANTREL\n          Pipe to VANTREL has overflown\n" +
        "++ Warning: Path to \"" + std::string(900, 'x') + "\" is longer than 4096\n" +
        "            Atomicity of pipe operation is not guaranteed.\n");
    EXPECT_EQ(model.account().counts.withoutPipe, 1U);
    EXPECT_EQ(model.account().counts.failedHandoffs, 2U);
    EXPECT_THAT(model.account().unannounced, testing::ElementsAre("", "a.raw"));
    EXPECT_EQ(model.account().counts.longRecords, 1U);
    EXPECT_EQ(model.account().counts.complaints, 0U);
}

TEST(LogModel, KeepsLittleOfWhatIsEndless) {
    LogModel model = started({"1"});
    model.takeLines(calls("1", 1) + begin + std::string(1 << 20, 'x') + "\n" + end);
    EXPECT_LE(model.account().lastComplaint.size(), 1024U);
    EXPECT_EQ(model.account().counts.complaints, 1U);
}

TEST(LogModel, ShowsTheComplaintThatTellsTheCause) {
    LogModel model = started({"1"});
    model.takeLines(calls("1", 1) + begin + "\n   \nreceiving incremental file list\n" +
                    "rsync: connection unexpectedly closed (45 bytes received so far)\n" +
                    "rsync: [receiver] write failed on \"/x\": No space left on device (28)\n" +
                    "receiving file list ... done\ncreated directory /srv/images/1/.\n" +
                    "sent 75 bytes  received 2.31K bytes  4.77K bytes/sec\n" +
                    "total size is 2.00K  speedup is 0.84\n" +
                    "rsync error: error in file IO (code 11)\n" + summary(1) + end);
    EXPECT_EQ(model.account().counts.complaints, 3U);
    EXPECT_EQ(model.account().lastComplaint,
              "rsync: [receiver] write failed on \"/x\": No space left on device (28)");
    model.takeLines(begin + "rsync error: timeout (code 30)\n" + end + begin + end);
    EXPECT_EQ(model.account().lastComplaint, "rsync error: timeout (code 30)");
}

TEST(LogModel, KeepsTheNamesOfLostFilesUntilTheyCome) {
    LogModel model = started({"1"});
    model.takeLines(calls("1", 1) + "Error: Lost a.raw\nError: Lost b.raw\n" + block(1, "a.raw"));
    EXPECT_EQ(model.account().counts.lost, 2U);
    EXPECT_THAT(model.account().lost, testing::ElementsAre("b.raw"));
    model.takeLines("Error: Lost a b\nError: Lost b.raw\n"); // two words are no name
    EXPECT_EQ(model.account().counts.lost, 3U);
    EXPECT_THAT(model.account().lost, testing::ElementsAre("b.raw"));
    model.forgetLost("b.raw");
    EXPECT_THAT(model.account().lost, testing::IsEmpty());
    for (int i = 0; i < 100000; ++i) {
        model.takeLines("Error: Lost " + std::to_string(i) + "\n");
    }
    EXPECT_LE(model.account().lost.size(), 4096U);
}

TEST(LogModel, CountsWhatAWorkerCouldNotDo) {
    LogModel model = started({"1", "2"});
    model.takeLines(separator + separator + "2: Error: Listing failed\n" + starting("2", 2) +
                    call("2") + "2: Error: Could not fork subprocess\n          Too many open " +
                    "files\n" + call("2") + block(3) +
                    "2: Error: could not remove /tmp/file_list_1_2_0\n   No such file\n");
    EXPECT_EQ(model.account().counts.failedListings, 1U);
    EXPECT_EQ(model.account().counts.failedStarts, 1U);
    EXPECT_EQ(model.account().counts.failedRemovals, 1U);
    EXPECT_EQ(model.account().counts.files, 3U);
}

TEST(LogModel, EndsABlockThatItWasInWhenLinesWereMissed) {
    LogModel model = started({"1"});
    model.takeLines(calls("1", 1) + begin + "something\n");
    model.takeGap();
    EXPECT_TRUE(model.account().hasGap);
    model.takeLines(starting("1", 1));
    EXPECT_EQ(model.account().counts.cycles, 2U);
    model.takeLines(banner({"1"}));
    EXPECT_FALSE(model.account().hasGap);
}

} // namespace

} // namespace control
