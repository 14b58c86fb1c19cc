// A run: which files belong to it, when it ends, and whether it has all of them.
#include "relay/run.h"

#include "relay/messages.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include <re2/re2.h>

namespace relay {

namespace {

constexpr std::size_t longestIndex = 12; // digits, so that sums over all detectors can't overflow
constexpr std::int64_t expressionMemory = 8LL << 20U; // bytes
constexpr std::size_t mostPartsTold = 100;            // in one object
constexpr std::array<const char*, 3> stateNames = {"open", "ending", "ended"};

std::optional<std::int64_t> parseIndex(std::string_view digits) {
    std::int64_t index = 0;
    const char* const end = digits.data() + digits.size();
    const auto [behind, error] = std::from_chars(digits.data(), end, index);
    const bool isIndex = error == std::errc() && behind == end && index >= 0;
    return isIndex && digits.size() <= longestIndex ? std::optional(index) : std::nullopt;
}

/// What addBytes has added under that key, percent-encoded; empty if it has not.
std::string encodedBytes(const Json& object, const std::string& key) {
    const auto plain = object.find(key);
    if (plain != object.end() && plain->is_string()) {
        return percentEncoded(plain->get<std::string>());
    }
    const auto encoded = object.find(key + "_percent");
    if (encoded == object.end() || !encoded->is_string()) {
        return {};
    }
    // Anyone who may write into the pipe may have made this up: nothing but % is taken as it is.
    std::string text = percentEncoded(encoded->get<std::string>());
    for (std::size_t at = 0; (at = text.find("%25", at)) != std::string::npos; ++at) {
        text.erase(at + 1, 2);
    }
    return text;
}

/// "1 index is", "3 indices are".
std::string indicesAre(std::int64_t count) {
    return std::to_string(count) + (count == 1 ? " index is" : " indices are");
}

} // namespace

RunPattern::RunPattern(const std::string& pattern) {
    if (pattern.empty()) {
        return;
    }
    re2::RE2::Options options(re2::RE2::Quiet);
    options.set_encoding(re2::RE2::Options::EncodingLatin1); // names are any bytes
    options.set_dot_nl(true);
    options.set_max_mem(expressionMemory);
    const auto compiled = std::make_shared<const re2::RE2>(pattern, options);
    if (!compiled->ok()) {
        mistake = "is no regular expression: " + compiled->error();
        return;
    }
    for (const auto& [name, number] : compiled->NamedCapturingGroups()) {
        if (name == "run") {
            runGroup = number;
        } else if (name == "detector") {
            detectorGroup = number;
        } else if (name == "index") {
            indexGroup = number;
        } else {
            mistake = "has a group \"" + name + "\", but only run, detector and index are known";
        }
    }
    if (runGroup == 0) {
        mistake = "has no group (?P<run>...)";
    }
    if (mistake.empty()) {
        expression = compiled;
    }
}

std::optional<RunPattern::Place> RunPattern::find(std::string_view path) const {
    if (!expression) {
        return std::nullopt;
    }
    const int groups = std::max({runGroup, detectorGroup, indexGroup}) + 1;
    std::vector<re2::StringPiece> found(static_cast<std::size_t>(groups));
    if (!expression->Match({path.data(), path.size()}, 0, path.size(), re2::RE2::UNANCHORED,
                           found.data(), groups)) {
        return std::nullopt;
    }
    const auto group = [&found](int number) {
        const re2::StringPiece& piece = found[static_cast<std::size_t>(number)];
        return number == 0 || piece.data() == nullptr
                   ? std::string_view()
                   : std::string_view(piece.data(), piece.size());
    };
    if (group(runGroup).empty()) {
        return std::nullopt;
    }
    return Place{std::string(group(runGroup)), std::string(group(detectorGroup)),
                 parseIndex(group(indexGroup))};
}

std::string runOf(const Record& record, const RunPattern& pattern) {
    if (record.kind == Kind::file) {
        const auto place = pattern.find(record.path);
        return place ? percentEncoded(place->run) : std::string();
    }
    if (record.kind != Kind::run || record.path.size() < runLinePrefix.size()) {
        return {};
    }
    const Json told = Json::parse(record.path.substr(runLinePrefix.size()), nullptr, false);
    return told.is_object() ? encodedBytes(told, "run") : std::string();
}

IndexSpan wantedIndices(const Run& run, const RunPart& part, const RunSettings& settings) {
    IndexSpan wanted{part.detector, std::min(settings.firstIndex, part.lowest), part.highest};
    // How many are behind the highest one can be told only where each file is one index of the only
    // detector.
    if (run.expected && run.parts.size() == 1 && part.indices == run.files) {
        wanted.last = std::max(wanted.last, wanted.first + *run.expected - 1);
    }
    return wanted;
}

Judgement judge(const Run& run, const RunSettings& settings) {
    Judgement judgement;
    bool hasIndices = false;
    for (const RunPart& part : run.parts) {
        if (part.indices > 0) {
            hasIndices = true;
            const IndexSpan wanted = wantedIndices(run, part, settings);
            judgement.missing += wanted.last - wanted.first + 1 - part.indices;
        }
    }
    const bool isRightNumber = !run.expected || run.files == *run.expected;
    if (!isRightNumber) {
        judgement.why = std::to_string(run.files) +
                        (run.files < *run.expected
                             ? " of " + std::to_string(*run.expected) + " files"
                             : " files where " + std::to_string(*run.expected) + " were expected");
    }
    if (judgement.missing > 0) {
        judgement.why += (isRightNumber ? "" : ", ") + indicesAre(judgement.missing) + " missing";
    }
    if (!judgement.why.empty()) {
        judgement.isComplete = false;
    } else if (run.expected) {
        judgement.isComplete = true;
        judgement.why = "all " + std::to_string(*run.expected) + " files";
    } else if (hasIndices) {
        judgement.isComplete = true;
        judgement.why = "no index is missing below the highest one; how many files there should " +
                        std::string("be was not told");
    } else {
        judgement.why = "nothing tells how many files there should be";
    }
    return judgement;
}

Json jsonOf(const Run& run, const Judgement& judgement, const std::vector<IndexSpan>& missing) {
    const auto orNull = [](bool isThere, const Json& value) { return isThere ? value : Json(); };
    Json object;
    addBytes(object, "run", run.name);
    object["state"] = stateNames.at(static_cast<std::size_t>(run.state));
    // One that goes on is complete only if all that is expected is there.
    const bool isOpen = run.state != RunState::ended && !run.expected;
    const bool isTold = judgement.isComplete && !(isOpen && *judgement.isComplete);
    object["complete"] = orNull(isTold, judgement.isComplete.value_or(false));
    object["why"] = judgement.why;
    object["by"] = run.by;
    object["files"] = run.files;
    object["bytes"] = run.bytes;
    object["expected"] = orNull(run.expected.has_value(), run.expected.value_or(0));
    object["first"] = orNull(run.first != 0, secondsText(run.first));
    object["last"] = orNull(run.last != 0, secondsText(run.last));
    object["ended"] = orNull(run.ended != 0, secondsText(run.ended));
    object["reopened"] = run.reopened;
    object["missing_count"] = judgement.missing;
    object["missing"] = Json::array();
    for (const IndexSpan& each : missing) {
        Json span;
        addBytes(span, "detector", each.detector);
        span["first"] = each.first;
        span["last"] = each.last;
        object["missing"].push_back(std::move(span));
    }
    object["detectors"] = Json::array();
    for (std::size_t n = 0; n < std::min(run.parts.size(), mostPartsTold); ++n) {
        const RunPart& part = run.parts[n];
        Json one;
        addBytes(one, "detector", part.detector);
        one["indices"] = part.indices;
        one["lowest"] = orNull(part.indices > 0, part.lowest);
        one["highest"] = orNull(part.indices > 0, part.highest);
        object["detectors"].push_back(std::move(one));
    }
    return object;
}

std::string textOf(const Run& run, const Judgement& judgement) {
    const char* const verdict = !judgement.isComplete   ? ""
                                : *judgement.isComplete ? "complete: "
                                                        : "INCOMPLETE: ";
    return shown(run.name) + ": " + std::to_string(run.files) + " files, " +
           std::to_string(run.bytes) + " bytes; " +
           stateNames.at(static_cast<std::size_t>(run.state)) +
           (run.by.empty() ? "" : " by " + run.by) + "; " + verdict + judgement.why + "\n";
}

Json jsonOf(const RunFile& file) {
    Json object;
    addBytes(object, "path", file.path);
    object["seq"] = file.sequence;
    addBytes(object, "detector", file.detector);
    object["index"] = file.index ? Json(*file.index) : Json();
    if (file.identity) {
        object["size"] = file.identity->size;
        object["mtime"] = secondsText(file.identity->mtime);
    }
    if (file.digestState == DigestState::taken) {
        object["digest"] = file.digest;
    } else if (file.digestState == DigestState::impossible) {
        object["no_digest"] = file.digest;
    }
    return object;
}

} // namespace relay
