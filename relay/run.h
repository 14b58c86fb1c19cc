// A run: which files belong to it, when it ends, and whether it has all of them. Nothing but logic.
#pragma once

#include "relay/json.h"
#include "relay/record.h"
#include "relay/settings.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace re2 {
class RE2;
}

namespace relay {

/// A regular expression with the named groups `run`, `detector` and `index`, found anywhere in a
/// path. It takes a time that grows with the path only, whatever a detector names its files.
class RunPattern {
public:
    struct Place {
        std::string run;
        std::string detector; // empty if the pattern has no such group
        std::optional<std::int64_t> index;
    };

    explicit RunPattern(const std::string& pattern);

    /// What is wrong with it, in one sentence; empty if nothing is.
    const std::string& problem() const { return mistake; }

    /// Nothing if the path belongs to no run, as none does if the pattern is empty or wrong.
    std::optional<Place> find(std::string_view path) const;

private:
    std::shared_ptr<const re2::RE2> expression;
    int runGroup = 0; // 0: there is none
    int detectorGroup = 0;
    int indexGroup = 0;
    std::string mistake;
};

/// The name, percent-encoded, of the run to which the record's file belongs or which the record
/// tells of; empty if there is none.
std::string runOf(const Record& record, const RunPattern& pattern);

/// The numbers stand in the database.
enum class RunState { open = 0, ending = 1, ended = 2 };

/// What one detector has sent of a run.
struct RunPart {
    std::string detector;
    std::int64_t indices = 0; // different ones; the next two have a meaning if there are some
    std::int64_t lowest = 0;
    std::int64_t highest = 0;
};

struct Run {
    std::string name; // any bytes
    RunState state = RunState::open;
    std::string by;                       // what ended or reopened it; empty while it is open
    std::optional<std::int64_t> expected; // files, if that was told
    std::int64_t files = 0;               // by their paths: a new file of an old name is none more
    std::int64_t bytes = 0;
    std::int64_t first = 0; // when its first file came, in nanoseconds since 1970; 0: none came
    std::int64_t last = 0;  // its last file
    std::int64_t ended = 0; // 0: it has not
    std::int64_t reopened = 0;
    std::vector<RunPart> parts;
};

/// Whether a run has all its files, as far as can be told.
struct Judgement {
    std::optional<bool> isComplete; // nothing: neither indices nor an expected number tell
    std::string why;                // one clause
    std::int64_t missing = 0;       // indices
};

Judgement judge(const Run& run, const RunSettings& settings);

/// The most files that can be expected of a run.
constexpr std::int64_t mostExpected = 1000000000000;

/// Indices that are missing, from the first to the last.
struct IndexSpan {
    std::string detector;
    std::int64_t first = 0;
    std::int64_t last = 0;
};

/// The indices that a detector should have sent, as far as can be told; `part` is one of the run's
/// that has indices.
IndexSpan wantedIndices(const Run& run, const RunPart& part, const RunSettings& settings);

/// The run as a JSON object; its form is documented in docs/relay.md.
Json jsonOf(const Run& run, const Judgement& judgement, const std::vector<IndexSpan>& missing);

/// What stands in front of such an object in a record of kind `run`.
constexpr std::string_view runLinePrefix = "run: ";

/// A line on it for people.
std::string textOf(const Run& run, const Judgement& judgement);

/// Of a file's digest. The numbers stand in the database.
enum class DigestState { unwanted = 0, pending = 1, taken = 2, impossible = 3 };

/// One file of a run.
struct RunFile {
    std::string run;
    std::string path;
    std::int64_t sequence = 0; // of its record
    std::string detector;
    std::optional<std::int64_t> index;
    std::optional<Identity> identity;
    DigestState digestState = DigestState::unwanted;
    std::string digest; // "METHOD:HEXADECIMAL"; or why there is none
};

/// What a manifest says of it.
Json jsonOf(const RunFile& file);

} // namespace relay
