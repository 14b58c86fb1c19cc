// A snapshot as JSON.
#include "control/observe/snapshot_json.h"
#include "tests/unit/control/example_snapshot.h"

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace control {

namespace {

using nlohmann::json;

TEST(SnapshotJson, HoldsWhatTheSnapshotHolds) {
    const json object = snapshotJson(exampleSnapshot());
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

TEST(SnapshotJson, SaysNullWhereNothingIsKnown) {
    Snapshot snapshot;
    snapshot.detectors.emplace_back();
    const json object = snapshotJson(snapshot);
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

TEST(SnapshotJson, IsWholeWhateverBytesAreInIt) {
    Snapshot snapshot = exampleSnapshot();
    snapshot.lastComplaint = "\xff\xfe \x1b[2J \"\\\n";
    snapshot.detectors[0].lastFile = "\xe9";
    const std::string line = snapshotJsonText(snapshot, true);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_EQ(line.find('\x1b'), std::string::npos);
    const json object = json::parse(line);
    EXPECT_EQ(object["last_complaint"], "\uFFFD\uFFFD \x1b[2J \"\\\n");
    EXPECT_EQ(json::parse(snapshotJsonText(snapshot, false)), object);
}

} // namespace

} // namespace control
