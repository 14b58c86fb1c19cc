// All figures in both their forms, and that what is not known is left out.
#include "control/observe/figures.h"
#include "example_snapshot.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using nlohmann::json;
using testing::HasSubstr;

/// The samples as they are served, "name{labels}" to value.
std::map<std::string, std::string> samples(const Snapshot& snapshot) {
    std::map<std::string, std::string> found;
    std::istringstream text(metricsText(snapshot));
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

TEST(MetricsText, GivesEachDetectorItsOwn) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.detectors[1].figures->files = 7;
    EXPECT_EQ(sample(snapshot, "skarn_files_copied_total{detector=\"1\"}"), "12345");
    EXPECT_EQ(sample(snapshot, "skarn_files_copied_total{detector=\"2\"}"), "7");
    EXPECT_EQ(sample(snapshot, "skarn_bytes_copied_total{detector=\"1\"}"), "5368709120");
    EXPECT_EQ(sample(snapshot, "skarn_files_copied_total"), std::nullopt);
    EXPECT_EQ(sample(snapshot, "skarn_detector_info{detector=\"1\",share=\"rsync://root@127.0.0."
                               "1:49371/ramdisk/\",target=\"/srv/images/1/.\"}"),
              "1");
}

TEST(MetricsText, CountsByTheLogWhereTheCopyProgramKeepsNoFigures) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.hasFigures = false;
    for (DetectorSnapshot& detector : snapshot.detectors) {
        detector.figures.reset();
    }
    EXPECT_EQ(sample(snapshot, "skarn_files_copied_total"), "24690");
    EXPECT_EQ(sample(snapshot, "skarn_files_copied_total{detector=\"1\"}"), std::nullopt);
}

TEST(MetricsText, HasASampleForEachState) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.detectors[1].state = DetectorSnapshot::State::unreachable;
    snapshot.detectors[1].failingSince = 17;
    EXPECT_EQ(sample(snapshot, "skarn_detector_state{detector=\"2\",state=\"unreachable\"}"), "1");
    EXPECT_EQ(sample(snapshot, "skarn_detector_state{detector=\"2\",state=\"copying\"}"), "0");
    EXPECT_EQ(sample(snapshot, "skarn_listing_failing_since_seconds{detector=\"2\"}"), "17.0");
    EXPECT_EQ(sample(snapshot, "skarn_listing_failing_since_seconds{detector=\"1\"}"),
              std::nullopt);
    EXPECT_EQ(sample(snapshot, "skarn_verdict{level=\"not_keeping_up\"}"), "1");
    EXPECT_EQ(sample(snapshot, "skarn_up"), "1");
    EXPECT_EQ(sample(snapshot, "skarn_pipe_state{state=\"read\"}"), "1");
    snapshot.daemonState = DaemonState::dead;
    EXPECT_EQ(sample(snapshot, "skarn_up"), "0");
    EXPECT_EQ(sample(snapshot, "skarn_daemon_state{state=\"dead\"}"), "1");
}

TEST(MetricsText, LeavesOutWhatIsNotKnown) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.log.coverage = LogCoverage::none;
    snapshot.log.limit = -1;
    snapshot.detectors[0].freeBytes.reset();
    snapshot.pipe.state = PipeSnapshot::State::unknown;
    const auto found = samples(snapshot);
    for (const char* const name :
         {"skarn_cycles_total", "skarn_log_limit_bytes", "skarn_pipe_readers",
          "skarn_pipe_write_blocked_seconds", "skarn_target_free_bytes{detector=\"1\"}",
          "skarn_target_until_full_seconds{detector=\"2\"}"}) {
        EXPECT_EQ(found.count(name), 0U) << name;
    }
    EXPECT_EQ(found.count("skarn_target_free_bytes{detector=\"2\"}"), 1U);
}

TEST(MetricsText, FollowsTheConventions) {
    std::istringstream text(metricsText(exampleSnapshot()));
    std::set<std::string> names;
    std::string hash;
    std::string kind;
    std::string name;
    for (std::string line; std::getline(text, line);) {
        std::istringstream words(line);
        if (words >> hash >> kind >> name && kind == "TYPE") {
            std::string type;
            words >> type;
            EXPECT_TRUE(names.insert(name).second) << name;
            EXPECT_EQ(name.rfind("skarn_", 0), 0U) << name;
            const bool total = name.size() > 6 && name.substr(name.size() - 6) == "_total";
            EXPECT_EQ(total, type == "counter") << name;
        } else if (kind == "HELP") {
            EXPECT_EQ(line.back(), '.') << line;
        }
    }
    EXPECT_GT(names.size(), 40U);
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
    const std::string text = metricsText(snapshot);
    EXPECT_THAT(text, HasSubstr(R"(skarn_copy_processes{detector="a\"b\\134c\\012} 1\\015"} 3)"));
}

TEST(JsonText, HoldsWhatTheSnapshotHolds) {
    const json object = json::parse(jsonText(exampleSnapshot(), true));
    EXPECT_EQ(object["daemon"]["state"], "running");
    EXPECT_EQ(object["daemon"]["pid"], 812);
    EXPECT_EQ(object["daemon"]["start_options"], json({"-u", "1000:100"}));
    EXPECT_EQ(object["detectors"].size(), 2U);
    EXPECT_EQ(object["detectors"][1]["id"], "2");
    EXPECT_EQ(object["detectors"][1]["state"], "copying");
    EXPECT_EQ(object["detectors"][1]["copy_processes"], 3);
    EXPECT_EQ(object["detectors"][1]["counts"]["files"], 12345);
    EXPECT_EQ(object["total"]["files"], 24690);
    EXPECT_EQ(object["rates"]["history"].size(), 8U);
    EXPECT_EQ(object["pipe"]["readers"], json({"vantrel (411)"}));
    EXPECT_EQ(object["log"]["coverage"], "since_start");
    EXPECT_EQ(object["verdict"]["level"], "keeping_up");
}

TEST(JsonText, SaysNullWhereNothingIsKnown) {
    Snapshot snapshot;
    snapshot.detectors.emplace_back();
    const json object = json::parse(jsonText(snapshot, true));
    for (const char* const path :
         {"/daemon/pid", "/daemon/up_since", "/daemon/start_options", "/daemon/process_limit",
          "/configuration/file", "/configuration/problem", "/detectors/0/free_bytes",
          "/detectors/0/seconds_until_full", "/detectors/0/last_file", "/last_file",
          "/last_complaint", "/rates/last_seconds", "/log/path", "/log/started"}) {
        EXPECT_TRUE(object.at(json::json_pointer(path)).is_null()) << path;
    }
    EXPECT_EQ(object["daemon"]["state"], "unknown");
    EXPECT_EQ(object["pipe"]["state"], "unknown");
}

TEST(JsonText, IsWholeWhateverBytesAreInIt) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.lastComplaint = "\xff\xfe \x1b[2J \"\\\n";
    snapshot.detectors[0].figures->lastFile = "\xe9\u009b";
    const std::string line = jsonText(snapshot, true);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_TRUE(std::all_of(line.begin(), line.end(),
                            [](char each) { return each >= 0x20 && each < 0x7f; }));
    const json object = json::parse(line);
    EXPECT_EQ(object["last_complaint"], "\uFFFD\uFFFD \x1b[2J \"\\\n");
    EXPECT_EQ(json::parse(jsonText(snapshot, false)), object);
}

} // namespace

} // namespace control
