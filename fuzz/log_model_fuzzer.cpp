// Fuzzes the reading of the daemon's log: whatever stands in it, the account adds up.
#include "control/observe/log_model.h"
#include "fuzz/input.h"

#include <algorithm>
#include <array>

using fuzz::require;

namespace {

using control::Counts;
using control::LogModel;

constexpr std::array<std::uint64_t Counts::*, 12> fields = {
    &Counts::cycles,      &Counts::processes,   &Counts::failedStarts,   &Counts::reports,
    &Counts::files,       &Counts::lost,        &Counts::complaints,     &Counts::failedHandoffs,
    &Counts::withoutPipe, &Counts::longRecords, &Counts::failedListings, &Counts::failedRemovals,
};

/// Between two banners nothing shrinks.
void checkGrowth(const LogModel& before, const LogModel& after) {
    if (before.account().starts != after.account().starts) {
        require(after.account().starts > before.account().starts, "banners are counted");
        return;
    }
    for (const auto field : fields) {
        require(before.account().counts.*field <= after.account().counts.*field,
                "a count does not shrink");
    }
}

void checkBounds(const LogModel& model) {
    require(model.account().lastComplaint.size() <= 1024,
            "what is shown of a complaint is bounded");
    require(model.account().lastFile.size() <= 1024, "what is shown of a name is bounded");
    require(model.account().started.size() <= 1024, "what is shown of a date is bounded");
    require(model.account().lost.size() <= model.account().counts.lost,
            "each lost name was counted");
    require(fuzz::split(model.account().lastComplaint, '\n').size() <= 1,
            "a complaint is one line");
}

bool isSame(const LogModel& one, const LogModel& other) {
    return one.account().starts == other.account().starts &&
           one.account().lastFile == other.account().lastFile &&
           one.account().lastComplaint == other.account().lastComplaint &&
           std::all_of(fields.begin(), fields.end(), [&](const auto field) {
               return one.account().counts.*field == other.account().counts.*field;
           });
}

} // namespace

/// A line of one byte 0xff is a gap.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    LogModel model;
    LogModel atOnce;
    bool hasGap = false;
    std::string whole;
    for (const std::string& line : fuzz::split(fuzz::text(data, size), '\n')) {
        const LogModel before = model;
        if (line == "\xff") {
            model.takeGap();
            hasGap = true;
        } else {
            model.takeLines(line + "\n");
            whole += line + "\n";
        }
        checkGrowth(before, model);
        checkBounds(model);
    }
    atOnce.takeLines(whole);
    require(hasGap || isSame(model, atOnce), "it does not matter in which pieces the lines come");
    return 0;
}
