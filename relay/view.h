// What the page shows (page.html), as one JSON object.
#pragma once

#include "relay/json.h"
#include "relay/runs.h"
#include "relay/status.h"

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <utility>

namespace relay {

/// The page as it is served.
extern const char* const pageText;

/// All calls may be made by any thread.
class View {
public:
    /// `fromFigures` is a file that another program writes (skarnctl metrics --write). `ofRuns` may
    /// be none, and outlives the view.
    View(std::string fromFigures, Runs* ofRuns);

    /// Takes note of how many records have come since the start, with how many bytes. To be called
    /// once a second; what comes sooner is left out.
    void note(std::int64_t time, std::int64_t records, std::int64_t bytes);

    /// The object's text. Throws DatabaseError.
    std::string json(const Status& status);

private:
    Json look() const;
    Json latestRuns();

    const std::string figures;
    Runs* const runs;
    std::mutex mutex; // guards the rest
    std::int64_t notedAt = 0;
    std::pair<std::int64_t, std::int64_t> noted;
    std::deque<std::pair<double, double>> rates; // files and bytes a second, the oldest first
    std::int64_t runsFrom = 0;                   // when `told` was asked for
    std::string told;                            // of runs
};

} // namespace relay
