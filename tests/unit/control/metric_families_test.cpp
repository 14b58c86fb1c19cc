// The metrics made of a snapshot: names, labels, values, and what is left out.
#include "control/metrics/metric_families.h"
#include "example_snapshot.h"

#include <map>
#include <optional>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <prometheus/text_serializer.h>

namespace control {

namespace {

using testing::HasSubstr;

/// The samples as they are served, "name{labels}" to value.
std::map<std::string, std::string> samples(const Snapshot& snapshot) {
    std::map<std::string, std::string> found;
    std::istringstream text(prometheus::TextSerializer().Serialize(metricFamilies(snapshot)));
    for (std::string line; std::getline(text, line);) {
        if (line.empty() || line.front() == '#') {
            continue;
        }
        const std::size_t blank = line.rfind(' ');
        const bool isNew = found.emplace(line.substr(0, blank), line.substr(blank + 1)).second;
        EXPECT_TRUE(isNew) << "twice: " << line;
    }
    return found;
}

std::optional<std::string> sample(const Snapshot& snapshot, const std::string& name) {
    const auto found = samples(snapshot);
    const auto entry = found.find(name);
    return entry == found.end() ? std::nullopt : std::optional(entry->second);
}

TEST(MetricFamilies, CountEachDetectorAndWhatIsNobodysInOneFamily) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.unattributed.files = 30;
    snapshot.unattributed.lost = 2;
    EXPECT_EQ(sample(snapshot, R"(skarn_files_copied_total{detector="1"})"), "12345");
    EXPECT_EQ(sample(snapshot, R"(skarn_files_copied_total{detector="2"})"), "12345");
    EXPECT_EQ(sample(snapshot, "skarn_files_copied_total"), "30");
    EXPECT_EQ(sample(snapshot, R"(skarn_files_lost_total{detector="1"})"), "0");
    EXPECT_EQ(sample(snapshot, "skarn_files_lost_total"), "2");
}

TEST(MetricFamilies, CountWhatIsUndecidedOnlyWhenItIsDecided) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.unattributed.files = 30;
    snapshot.undecided.files = 12;
    EXPECT_EQ(sample(snapshot, "skarn_files_copied_total"), "18");
}

TEST(MetricFamilies, HaveEachCounterOfADetector) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.detectors.resize(1);
    Counts& counts = snapshot.detectors[0].counts;
    counts = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    const auto found = samples(snapshot);
    const auto of = [&found](const std::string& name) {
        return found.at(name + R"({detector="1"})");
    };
    EXPECT_EQ(of("skarn_cycles_total"), "1");
    EXPECT_EQ(of("skarn_copy_processes_started_total"), "2");
    EXPECT_EQ(of("skarn_copy_process_start_failures_total"), "3");
    EXPECT_EQ(of("skarn_copy_reports_total"), "4");
    EXPECT_EQ(of("skarn_files_copied_total"), "5");
    EXPECT_EQ(of("skarn_files_lost_total"), "6");
    EXPECT_EQ(of("skarn_complaints_total"), "7");
    EXPECT_EQ(of("skarn_handoff_failures_total"), "8");
    EXPECT_EQ(of("skarn_pipe_absent_total"), "9");
    EXPECT_EQ(of("skarn_long_records_total"), "10");
    EXPECT_EQ(of("skarn_listing_failures_total"), "11");
    EXPECT_EQ(of("skarn_file_list_removal_failures_total"), "12");
}

TEST(MetricFamilies, TellOfTheDaemon) {
    Snapshot snapshot = exampleSnapshot();
    EXPECT_EQ(sample(snapshot, "skarn_up"), "1");
    EXPECT_EQ(sample(snapshot, R"(skarn_daemon_state{state="running"})"), "1");
    EXPECT_EQ(sample(snapshot, "skarn_start_time_seconds"), "1772362800");
    EXPECT_EQ(sample(snapshot, "skarn_copy_process_limit"), "8");
    snapshot.daemonState = Snapshot::DaemonState::dead;
    snapshot.upSince.reset();
    EXPECT_EQ(sample(snapshot, "skarn_up"), "0");
    EXPECT_EQ(sample(snapshot, R"(skarn_daemon_state{state="dead"})"), "1");
    EXPECT_EQ(sample(snapshot, R"(skarn_daemon_state{state="running"})"), "0");
    EXPECT_EQ(sample(snapshot, "skarn_start_time_seconds"), std::nullopt);
}

TEST(MetricFamilies, TellOfTargetsOnlyWhatIsKnown) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.detectors[0].secondsUntilFull = 720;
    snapshot.detectors[1].freeBytes.reset();
    snapshot.detectors[1].totalBytes.reset();
    const auto found = samples(snapshot);
    EXPECT_EQ(found.at(R"(skarn_target_free_bytes{detector="1"})"), "322122547200");
    EXPECT_EQ(found.at(R"(skarn_target_size_bytes{detector="1"})"), "429496729600");
    EXPECT_EQ(found.at(R"(skarn_target_until_full_seconds{detector="1"})"), "720");
    EXPECT_EQ(found.count(R"(skarn_target_free_bytes{detector="2"})"), 0U);
    EXPECT_EQ(found.count(R"(skarn_target_size_bytes{detector="2"})"), 0U);
    EXPECT_EQ(found.count(R"(skarn_target_until_full_seconds{detector="2"})"), 0U);
}

TEST(MetricFamilies, TellOfEachDetectorWhatIsDoneForIt) {
    const auto found = samples(exampleSnapshot());
    EXPECT_EQ(found.at(R"(skarn_copy_processes{detector="1"})"), "3");
    EXPECT_EQ(found.at(R"(skarn_detector_state{detector="1",state="copying"})"), "1");
    EXPECT_EQ(found.at(R"(skarn_detector_state{detector="1",state="idle"})"), "0");
    EXPECT_EQ(found.at(R"(skarn_detector_info{detector="1",)"
                       R"(share="rsync://root@127.0.0.1:49371/ramdisk/",)"
                       R"(target="/srv/images/1/."})"),
              "1");
}

TEST(MetricFamilies, TellOfThePipe) {
    Snapshot snapshot = exampleSnapshot();
    EXPECT_EQ(sample(snapshot, "skarn_pipe_readers"), "1");
    EXPECT_EQ(sample(snapshot, R"(skarn_pipe_state{state="read"})"), "1");
    snapshot.pipe.state = PipeSnapshot::State::unknown;
    EXPECT_EQ(sample(snapshot, "skarn_pipe_readers"), std::nullopt);
    EXPECT_EQ(sample(snapshot, R"(skarn_pipe_state{state="unknown"})"), "1");
}

TEST(MetricFamilies, CountNothingWhereNothingCanBeRead) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.log.coverage = LogCoverage::none;
    const auto found = samples(snapshot);
    EXPECT_EQ(found.at(R"(skarn_log_coverage{coverage="none"})"), "1");
    EXPECT_EQ(found.count("skarn_files_copied_total"), 0U);
    EXPECT_EQ(found.count(R"(skarn_files_copied_total{detector="1"})"), 0U);
}

TEST(MetricFamilies, LeaveOutALimitThatTheLogDoesNotHave) {
    Snapshot snapshot = exampleSnapshot();
    EXPECT_EQ(sample(snapshot, "skarn_log_limit_bytes"), "1048576");
    snapshot.log.limit = -1;
    EXPECT_EQ(sample(snapshot, "skarn_log_limit_bytes"), std::nullopt);
}

TEST(MetricFamilies, FollowTheConventions) {
    std::set<std::string> names;
    for (const prometheus::MetricFamily& family : metricFamilies(exampleSnapshot())) {
        EXPECT_TRUE(names.insert(family.name).second) << family.name;
        EXPECT_EQ(family.name.rfind("skarn_", 0), 0U) << family.name;
        EXPECT_FALSE(family.help.empty());
        EXPECT_EQ(family.help.back(), '.') << family.help;
        const bool total =
            family.name.size() > 6 && family.name.compare(family.name.size() - 6, 6, "_total") == 0;
        EXPECT_EQ(total, family.type == prometheus::MetricType::Counter) << family.name;
    }
    EXPECT_GT(names.size(), 25U);
}

TEST(LabelValue, IsAlwaysUtf8) {
    EXPECT_EQ(labelValue("detector 1"), "detector 1");
    EXPECT_EQ(labelValue("größe"), "größe");
    EXPECT_EQ(labelValue("\xff\xc3("), "\\377\\303(");
    EXPECT_EQ(labelValue("a\nb\033\x7f"), "a\\012b\\033\\177");
    EXPECT_EQ(labelValue("\xc2\x9b"), "\\302\\233");
}

TEST(LabelValue, TellsDifferentTextsApart) {
    const std::set<std::string> values{labelValue("a\n"), labelValue("a\\012"), labelValue(""),
                                       labelValue("\\empty"), labelValue("\\")};
    EXPECT_EQ(values.size(), 5U);
    EXPECT_EQ(values.count(""), 0U);
}

TEST(LabelValue, MakesALineOfAnyDetector) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.detectors[0].id = "a\"b\\c\n} 1\r";
    const std::string text = prometheus::TextSerializer().Serialize(metricFamilies(snapshot));
    EXPECT_THAT(text, HasSubstr(R"(skarn_copy_processes{detector="a\"b\\134c\\012} 1\\015"} 3)"));
}

} // namespace

} // namespace control
