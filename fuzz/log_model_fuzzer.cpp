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

/// The whole is the sum of its parts. Nothing can be below zero without being above the whole.
void checkSums(const LogModel& model) {
    for (const auto field : fields) {
        std::uint64_t sum = model.unattributed().*field;
        require(sum <= model.total().*field, "what is nobody's is part of the whole");
        for (const auto& [id, detector] : model.detectors()) {
            require(detector.counts.*field <= model.total().*field, "a part is part of the whole");
            sum += detector.counts.*field;
        }
        require(sum == model.total().*field, "the whole is the sum of its parts");
    }
}

/// Between two banners, nothing that belongs to somebody, and no total, shrinks.
void checkGrowth(const LogModel& before, const LogModel& after) {
    if (before.starts() != after.starts()) {
        require(after.starts() > before.starts(), "banners are counted");
        return;
    }
    for (const auto field : fields) {
        require(before.total().*field <= after.total().*field, "a total does not shrink");
        for (const auto& [id, detector] : before.detectors()) {
            const auto found = after.detectors().find(id);
            require(found != after.detectors().end(), "a detector does not disappear");
            require(detector.counts.*field <= found->second.counts.*field,
                    "what is a detector's stays its own");
        }
    }
}

void checkBounds(const LogModel& model) {
    require(model.lastComplaint().size() <= 1024, "what is shown of a complaint is bounded");
    require(model.lastFile().size() <= 1024, "what is shown of a name is bounded");
    require(model.started().size() <= 1024, "what is shown of a date is bounded");
    require(fuzz::split(model.lastComplaint(), '\n').size() <= 1, "a complaint is one line");
}

bool isSame(const LogModel& one, const LogModel& other) {
    return one.starts() == other.starts() && one.lastFile() == other.lastFile() &&
           one.lastComplaint() == other.lastComplaint() &&
           std::all_of(fields.begin(), fields.end(), [&](const auto field) {
               return one.total().*field == other.total().*field &&
                      one.unattributed().*field == other.unattributed().*field;
           });
}

} // namespace

/// The first byte says how many detectors there are and whether there may be others. A line of one
/// byte 0xff is a gap.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::vector<std::string> all = {"1", "11", "1:", "++", "Error:", "", "b"};
    const std::vector<std::string> ids(all.begin(), all.begin() + data[0] % 8);
    LogModel model;
    model.setDetectors(ids, (data[0] & 0x80) == 0);
    LogModel atOnce = model;
    bool hasGap = false;
    std::string whole;
    for (const std::string& line : fuzz::split(fuzz::text(data + 1, size - 1), '\n')) {
        const LogModel before = model;
        if (line == "\xff") {
            model.lostTrack();
            hasGap = true;
        } else {
            model.feed(line + "\n");
            whole += line + "\n";
        }
        checkSums(model);
        checkGrowth(before, model);
        checkBounds(model);
    }
    atOnce.feed(whole);
    require(hasGap || isSame(model, atOnce), "it does not matter in which pieces the lines come");
    return 0;
}
