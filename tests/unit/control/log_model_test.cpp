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
    model.setDetectors(detectors, true);
    model.feed(banner(detectors));
    return model;
}

const Counts& of(const LogModel& model, const std::string& id) {
    return model.detectors().at(id).counts;
}

TEST(LogModel, CountsAWholeCycleOfOneDetector) {
    LogModel model = started({"1"});
    model.feed(calls("1", 2));
    EXPECT_TRUE(model.detectors().at("1").copying);
    model.feed(block(76, "frame_1.raw") + "1: Child process 60 terminated \n" +
               block(77, "frame_2.raw") + "1: Child process 61 terminated \n" + removed("1", 2));

    EXPECT_FALSE(model.detectors().at("1").copying);
    EXPECT_EQ(of(model, "1").cycles, 1U);
    EXPECT_EQ(of(model, "1").processes, 2U);
    EXPECT_EQ(of(model, "1").reports, 2U);
    EXPECT_EQ(of(model, "1").files, 153U);
    EXPECT_EQ(of(model, "1").complaints, 0U);
    EXPECT_EQ(model.detectors().at("1").lastFile, "frame_2.raw");
    EXPECT_EQ(model.total().files, 153U);
    EXPECT_EQ(model.unattributed().files, 0U);
    EXPECT_EQ(model.lastFile(), "frame_2.raw");
    EXPECT_EQ(model.lastComplaint(), "");
}

TEST(LogModel, KeepsTheBannersDateAndTheSettings) {
    const LogModel model = started({"1", "2"});
    EXPECT_EQ(model.started(), "Sat Nov 21 11:59:28 2026");
    EXPECT_EQ(model.starts(), 1U);
    EXPECT_EQ(model.settings().logFile, "/srv/log/skarn.log");
    EXPECT_EQ(model.settings().maxSize, "4096");
    EXPECT_EQ(model.settings().maxNumber, "2");
}

TEST(LogModel, TakesLinesInPiecesOfAnySize) {
    const std::string text = banner({"1"}) + calls("1", 1) + block(3) + removed("1");
    LogModel model;
    std::size_t begun = 0;
    while (begun < text.size()) {
        const std::size_t lineEnd = text.find('\n', begun) + 1;
        model.feed(text.substr(begun, lineEnd - begun));
        begun = lineEnd;
    }
    EXPECT_EQ(of(model, "1").files, 3U);
    EXPECT_EQ(model.starts(), 1U);
}

TEST(LogModel, BeginsAfreshWithEachBanner) {
    LogModel model = started({"1", "2"});
    // Killed in the middle of a cycle.
    model.feed(calls("1", 3) + block(5));
    model.feed(banner({"1", "2"}, "Sun Nov 22 00:00:00 2026"));
    EXPECT_EQ(model.starts(), 2U);
    EXPECT_EQ(model.started(), "Sun Nov 22 00:00:00 2026");
    EXPECT_EQ(model.total().files, 0U);
    EXPECT_EQ(of(model, "1").processes, 0U);
    EXPECT_FALSE(model.detectors().at("1").copying);
    // The two reports that the dead daemon never read are not waited for.
    model.feed(calls("2", 1) + block(7));
    EXPECT_EQ(of(model, "2").files, 7U);
}

TEST(LogModel, IsNotDeceivedByABannerWithinABlock) {
    LogModel model = started({"1"});
    model.feed(calls("1", 2) + block(5));
    model.feed(begin + banner({"2"}) + summary(1) + end);
    EXPECT_EQ(model.starts(), 1U);
    EXPECT_EQ(of(model, "1").files, 6U);
    EXPECT_EQ(model.detectors().count("2"), 0U);
}

TEST(LogModel, BelievesOfABlockOnlyItsLastLine) {
    LogModel model = started({"1"});
    model.feed(calls("1", 1) + begin + summary(1000) + "1 Starting 5 copy processes\n" +
               "Error: Lost b.raw\n++ Warning: No pipe to VANTREL\n" +
               "1: Removed file /tmp/file_list_39_675403456_0\n" + summary(2, "a", "b.raw") + end);
    EXPECT_EQ(of(model, "1").files, 2U);
    EXPECT_EQ(of(model, "1").cycles, 1U);
    EXPECT_EQ(of(model, "1").lost, 0U);
    EXPECT_EQ(of(model, "1").withoutPipe, 0U);
    EXPECT_TRUE(model.detectors().at("1").copying);
    EXPECT_EQ(of(model, "1").complaints, 5U);
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
        model.feed(calls("1", 1));
        model.feed(begin);
        model.feed(line);
        model.feed(end);
        EXPECT_EQ(of(model, "1").files, 0U) << line;
        EXPECT_EQ(of(model, "1").complaints, 1U) << line;
        EXPECT_EQ(of(model, "1").reports, 1U) << line;
    }
}

TEST(LogModel, FindsTheSummaryBehindAnUnfinishedLine) {
    LogModel model = started({"1"});
    model.feed(calls("1", 2) + begin + "rsync: killed in the mid" + summary(4, "Copied", "y") +
               end + begin + "nothing copied and cut o" + end);
    EXPECT_EQ(of(model, "1").files, 4U);
    EXPECT_EQ(of(model, "1").reports, 2U);
    EXPECT_EQ(of(model, "1").complaints, 1U);
    EXPECT_EQ(model.lastComplaint(), "nothing copied and cut o");
}

TEST(LogModel, CountsAnEmptyBlockAsAReport) {
    LogModel model = started({"1"});
    model.feed(calls("1", 1) + begin + end);
    EXPECT_EQ(of(model, "1").reports, 1U);
    EXPECT_EQ(of(model, "1").complaints, 0U);
    EXPECT_EQ(of(model, "1").files, 0U);
}

TEST(LogModel, TellsComplaintsFromWhatRsyncAlwaysPrints) {
    LogModel model = started({"1"});
    model.feed(calls("1", 1) + begin + "\n   \nreceiving incremental file list\n" +
               "rsync: [sender] link_stat \"/d\" (in ramdisk) failed: No such file (2)\n" +
               "receiving file list ... done\ncreated directory /srv/images/1/.\n" +
               "sent 75 bytes  received 2.31K bytes  4.77K bytes/sec\n" +
               "total size is 2.00K  speedup is 0.84\n" +
               "rsync error: some files/attrs were not transferred (code 23)\n" + summary(1) + end);
    EXPECT_EQ(of(model, "1").complaints, 2U);
    EXPECT_EQ(model.lastComplaint(),
              "rsync error: some files/attrs were not transferred (code 23)");
    EXPECT_EQ(of(model, "1").files, 1U);
}

TEST(LogModel, CountsLostFilesWithTheirBlock) {
    LogModel model = started({"1"});
    model.feed(calls("1", 1) + "Error: Lost a.raw\nError: Lost b.raw\n" + block(1));
    EXPECT_EQ(of(model, "1").lost, 2U);
    // Two words are no name, and what does not stand in front of a block is nobody's.
    model.feed("Error: Lost a b\nError: Lost c.raw\n" + separator);
    EXPECT_EQ(of(model, "1").lost, 2U);
    EXPECT_EQ(model.unattributed().lost, 1U);
    EXPECT_EQ(model.total().lost, 3U);
}

TEST(LogModel, CountsWhatGoesWrongWithTheHandoff) {
    LogModel model = started({"1"});
    model.feed(calls("1", 1) + "++ Warning: No pipe to VANTREL\n" +
               "++ Error: Failed to pass a.raw to VANTREL\n          Broken pipe\n" +
               "++ Error: Failed to pass  to VANTREL\n          Pipe to VANTREL has overflown\n" +
               "++ Warning: Path to \"" + std::string(900, 'x') + "\" is longer than 4096\n" +
               "            Atomicity of pipe operation is not guaranteed.\n");
    EXPECT_EQ(of(model, "1").withoutPipe, 1U);
    EXPECT_EQ(of(model, "1").failedHandoffs, 2U);
    EXPECT_EQ(of(model, "1").longRecords, 1U);
    EXPECT_EQ(of(model, "1").complaints, 0U);
}

TEST(LogModel, CountsWhatAWorkerCouldNotDo) {
    LogModel model = started({"1", "2"});
    model.feed(separator + separator + "2: Error: Listing failed\n" + starting("2", 2) + call("2") +
               "2: Error: Could not fork subprocess\n          Too many open files\n" + call("2") +
               block(3) + "2: Error: could not remove /tmp/file_list_1_2_0\n   No such file\n" +
               "2: Removed file /tmp/file_list_1_2_1\n");
    EXPECT_EQ(of(model, "2").failedListings, 1U);
    EXPECT_EQ(of(model, "2").failedStarts, 1U);
    EXPECT_EQ(of(model, "2").failedRemovals, 1U);
    EXPECT_EQ(of(model, "2").files, 3U);
    EXPECT_EQ(of(model, "1").files, 0U);
    EXPECT_FALSE(model.detectors().at("2").copying);
}

TEST(LogModel, GivesABlockToTheOnlyOneThatCopies) {
    LogModel model = started({"1", "2"});
    model.feed(calls("1", 1) + block(1) + removed("1") + calls("2", 2) + block(2));
    EXPECT_EQ(of(model, "1").files, 1U);
    EXPECT_EQ(of(model, "2").files, 2U);
    // Detector 2 waits for one more.
    model.feed(calls("1", 1) + block(4));
    EXPECT_EQ(of(model, "1").files, 1U);
    EXPECT_EQ(of(model, "2").files, 2U);
    EXPECT_EQ(model.unattributed().files, 4U);
}

TEST(LogModel, SettlesWhoseTheyWereWhenACycleEnds) {
    LogModel model = started({"1", "2"});
    model.feed(calls("1", 2) + calls("2", 1) + block(3) + "++ Warning: No pipe to VANTREL\n" +
               block(4, "last_of_1"));
    EXPECT_EQ(model.unattributed().files, 7U);
    EXPECT_EQ(model.undecided().files, 7U);
    model.feed(removed("1", 2));
    EXPECT_EQ(model.undecided().files, 0U);
    EXPECT_EQ(of(model, "1").files, 7U);
    EXPECT_EQ(of(model, "1").reports, 2U);
    EXPECT_EQ(model.detectors().at("1").lastFile, "last_of_1");
    EXPECT_EQ(model.unattributed().files, 0U);
    EXPECT_EQ(model.unattributed().withoutPipe, 1U) << "that line may have been detector 2's";
    model.feed(block(5) + removed("2"));
    EXPECT_EQ(of(model, "2").files, 5U);
    EXPECT_EQ(model.total().files, 12U);
}

TEST(LogModel, LeavesOpenWhatCannotBeSettled) {
    LogModel model = started({"1", "2"});
    model.feed(calls("1", 1) + calls("2", 1) + block(3) + block(4) + removed("1") + removed("2"));
    EXPECT_EQ(of(model, "1").files, 0U);
    EXPECT_EQ(of(model, "2").files, 0U);
    EXPECT_EQ(model.unattributed().files, 7U);
    EXPECT_EQ(model.unattributed().reports, 2U);
    EXPECT_EQ(model.undecided().reports, 0U) << "nobody can claim them any more";
    // Both are done: the next one is clear again.
    model.feed(calls("1", 1) + block(9) + removed("1"));
    EXPECT_EQ(of(model, "1").files, 9U);
}

TEST(LogModel, LooksOnlyAtTheBlocksOfTheCycleThatEnds) {
    LogModel model = started({"1", "2"});
    model.feed(calls("1", 1) + calls("2", 3) + block(3) + block(4) + removed("1"));
    EXPECT_EQ(model.unattributed().files, 7U);
    model.feed(calls("1", 1) + block(9) + removed("1"));
    EXPECT_EQ(of(model, "1").files, 9U);
    EXPECT_EQ(model.unattributed().files, 7U);
}

TEST(LogModel, DoesNotCountAFailedStartAsAReportToCome) {
    LogModel model = started({"1", "2"});
    model.feed(calls("1", 1) + "1: Error: Could not fork subprocess\n       Out of memory\n" +
               calls("2", 1) + block(6));
    EXPECT_EQ(of(model, "2").files, 6U);
}

TEST(LogModel, TellsDetectorsApartWhoseNamesBeginAlike) {
    const std::vector<std::string> ids = {"1", "11", "1:", "++", "Error:", "Error", "", ":"};
    LogModel model = started(ids);
    for (const std::string& id : ids) {
        model.feed(calls(id, 1) + block(2) + removed(id));
        EXPECT_EQ(of(model, id).cycles, 1U) << id;
        EXPECT_EQ(of(model, id).processes, 1U) << id;
        EXPECT_EQ(of(model, id).files, 2U) << id;
        EXPECT_FALSE(model.detectors().at(id).copying) << id;
    }
    EXPECT_EQ(model.total().cycles, ids.size());
    EXPECT_EQ(model.unattributed().files, 0U);
}

TEST(LogModel, KnowsTheDetectorsThatTheDaemonNames) {
    LogModel model;
    model.setDetectors({"new"}, false); // the configuration was changed since
    model.feed(banner({"old"}) + calls("old", 1) + block(3) + removed("old"));
    EXPECT_EQ(of(model, "old").files, 3U);
    EXPECT_EQ(of(model, "new").files, 0U);
}

TEST(LogModel, IgnoresLinesOfDetectorsThatItDoesNotKnow) {
    LogModel model = started({"1"});
    model.feed(calls("2", 3) + removed("2"));
    EXPECT_EQ(model.total().processes, 0U);
    EXPECT_EQ(model.detectors().size(), 1U);
}

TEST(LogModel, NamesNobodyBeforeTheBannerUnlessThereIsOnlyOne) {
    LogModel one;
    one.setDetectors({"1"}, true);
    one.feed(block(3));
    EXPECT_EQ(of(one, "1").files, 3U);

    LogModel perhapsOthers;
    perhapsOthers.setDetectors({"1"}, false);
    perhapsOthers.feed(block(3));
    EXPECT_EQ(perhapsOthers.unattributed().files, 3U);

    LogModel two;
    two.setDetectors({"1", "2"}, true);
    two.feed(block(3) + removed("1") + calls("1", 1) + block(4));
    EXPECT_EQ(two.unattributed().files, 7U) << "detector 2 may be in the middle of a cycle";
    two.feed(removed("1"));
    EXPECT_EQ(of(two, "1").files, 4U) << "by counting";
    two.feed(removed("2") + calls("1", 2) + block(5));
    EXPECT_EQ(of(two, "1").files, 9U) << "none is to come from detector 2";
}

TEST(LogModel, NamesNobodyAfterLinesWereMissed) {
    LogModel model = started({"1", "2"});
    model.feed(calls("1", 2) + block(1));
    EXPECT_EQ(of(model, "1").files, 1U);
    model.lostTrack();
    EXPECT_TRUE(model.hasGap());
    EXPECT_FALSE(model.detectors().at("1").copying);
    model.feed(block(2) + removed("1", 2));
    EXPECT_EQ(of(model, "1").files, 1U);
    EXPECT_EQ(model.unattributed().files, 2U);
    model.feed(banner({"1", "2"}));
    EXPECT_FALSE(model.hasGap());
}

TEST(LogModel, EndsABlockThatItWasInWhenLinesWereMissed) {
    LogModel model = started({"1"});
    model.feed(calls("1", 1) + begin + "receiving file list ... done\n");
    model.lostTrack();
    model.feed(separator + removed("1") + calls("1", 1));
    EXPECT_EQ(of(model, "1").cycles, 2U);
}

TEST(LogModel, DoubtsWhatComesAfterABlockThatWasNeverEnded) {
    LogModel model = started({"1", "2"});
    // The disk was full: the rest of the first block and the beginning of detector 2's cycle are
    // not in the log.
    model.feed(calls("1", 2) + begin + "receiving fi\n" + begin + summary(5) + end + block(6));
    EXPECT_EQ(of(model, "1").files, 0U);
    EXPECT_EQ(model.unattributed().files, 11U);
    EXPECT_EQ(model.total().reports, 2U);
}

TEST(LogModel, DoubtsWhatComesAfterAnEndWithoutABeginning) {
    LogModel model = started({"1", "2"});
    model.feed(calls("1", 2) + "something" + end + block(6));
    EXPECT_EQ(of(model, "1").files, 0U);
    EXPECT_EQ(model.unattributed().files, 6U);
}

TEST(LogModel, KeepsLittleOfWhatIsEndless) {
    LogModel model = started({"1"});
    model.feed(calls("1", 1) + begin + std::string(1 << 20, 'x') + "\n" + end);
    EXPECT_LE(model.lastComplaint().size(), 1024U);
    EXPECT_EQ(of(model, "1").complaints, 1U);
}

/// A daemon that does what daemons do, in any order that its threads may take, and knows whose each
/// block is.
class PlayedDaemon {
public:
    PlayedDaemon(std::uint32_t seed, int detectors) : random(seed) {
        for (int i = 1; i <= detectors; ++i) {
            workers.push_back({std::to_string(i)});
            ids.push_back(std::to_string(i));
        }
    }

    /// The next piece of its log.
    std::string step() {
        Worker& worker = workers[draw(workers.size())];
        std::string text;
        if (!worker.busy) {
            worker.busy = true;
            worker.toStart = 1 + static_cast<int>(draw(3));
            return starting(worker.id, worker.toStart);
        }
        // Its copy processes end in any order, also before the last one has started.
        if (worker.running > 0 && draw(2) == 0) {
            --worker.running;
            const int files = static_cast<int>(draw(4));
            if (draw(5) == 0) {
                ++truth[worker.id].lost;
                text += "Error: Lost x\n";
            }
            truth[worker.id].files += static_cast<std::uint64_t>(files);
            ++truth[worker.id].reports;
            return text + begin + (files > 0 ? summary(files) : "rsync: no\n") + end;
        }
        if (worker.toStart > 0) {
            --worker.toStart;
            text = call(worker.id);
            if (draw(6) == 0) {
                return text + worker.id + ": Error: Could not fork subprocess\n       no\n";
            }
            ++worker.running;
            return text;
        }
        if (worker.running == 0) {
            worker.busy = false;
            return removed(worker.id);
        }
        return "";
    }

    std::map<std::string, Counts> truth;
    std::vector<std::string> ids;

private:
    struct Worker {
        std::string id;
        bool busy = false;
        int toStart = 0;
        int running = 0;
    };

    std::size_t draw(std::size_t below) {
        return std::uniform_int_distribution<std::size_t>(0, below - 1)(random);
    }

    std::mt19937 random;
    std::vector<Worker> workers;
};

class PlayedDaemons : public testing::TestWithParam<int> {};

TEST_P(PlayedDaemons, NeverGetWhatIsAnothersAndLoseNothing) {
    std::uint64_t attributed = 0;
    for (std::uint32_t seed = 0; seed < 200; ++seed) {
        PlayedDaemon daemon(seed, GetParam());
        LogModel model = started(daemon.ids);
        std::map<std::string, std::uint64_t> before;
        for (int i = 0; i < 300; ++i) {
            model.feed(daemon.step());
            Counts all;
            for (const std::string& id : daemon.ids) {
                const Counts& counted = of(model, id);
                ASSERT_LE(counted.files, daemon.truth[id].files) << "seed " << seed;
                ASSERT_LE(counted.lost, daemon.truth[id].lost) << "seed " << seed;
                ASSERT_LE(counted.reports, daemon.truth[id].reports) << "seed " << seed;
                ASSERT_GE(counted.files, before[id]) << "shrunk, seed " << seed;
                before[id] = counted.files;
                all.files += daemon.truth[id].files;
                all.lost += daemon.truth[id].lost;
                all.reports += daemon.truth[id].reports;
            }
            const std::uint64_t decided = model.unattributed().files - model.undecided().files;
            ASSERT_GE(decided, before[""]) << "shrunk, seed " << seed;
            before[""] = decided;
            ASSERT_EQ(model.total().files, all.files) << "seed " << seed;
            ASSERT_EQ(model.total().lost, all.lost) << "seed " << seed;
            ASSERT_EQ(model.total().reports, all.reports) << "seed " << seed;
            if (GetParam() == 1) {
                ASSERT_EQ(of(model, "1").files, all.files) << "seed " << seed;
            }
        }
        attributed += model.total().reports - model.unattributed().reports;
    }
    EXPECT_GT(attributed, 200U) << "nothing was attributed, so that nothing was tried";
}

TEST_P(PlayedDaemons, NeverGetWhatIsAnothersAlsoWhenTheBeginningIsMissing) {
    for (std::uint32_t seed = 0; seed < 200; ++seed) {
        PlayedDaemon daemon(seed, GetParam());
        for (std::uint32_t i = 0; i < seed % 40; ++i) {
            daemon.step();
        }
        daemon.truth.clear();
        LogModel model;
        model.setDetectors(daemon.ids, true);
        for (int i = 0; i < 200; ++i) {
            model.feed(daemon.step());
            for (const std::string& id : daemon.ids) {
                ASSERT_LE(of(model, id).files, daemon.truth[id].files) << "seed " << seed;
                ASSERT_LE(of(model, id).reports, daemon.truth[id].reports) << "seed " << seed;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Detectors, PlayedDaemons, testing::Values(1, 2, 3, 5));

} // namespace

} // namespace control
