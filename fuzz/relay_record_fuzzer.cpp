// Fuzzes what the relay makes of a line of the pipe: its kind, its target, its run, its JSON; and
// the texts in which filters and times are written.
#include "fuzz/input.h"
#include "relay/filter.h"
#include "relay/json.h"
#include "relay/record.h"
#include "relay/run.h"
#include "relay/targets.h"

#include <algorithm>

using fuzz::require;

namespace {

std::string decoded(const std::string& text) {
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '%') {
            bytes += static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16));
            at += 2;
        } else {
            bytes += text[at];
        }
    }
    return bytes;
}

void tryJson(const std::string& line) {
    relay::Record record;
    record.kind = relay::kindOfLine(line);
    record.path = line;
    std::string json;
    relay::appendJson(record, json);
    require(relay::isUtf8(json), "the JSON is UTF-8");
    require(std::none_of(json.begin(), json.end(),
                         [](char each) { return each >= 0 && (each < 0x20 || each == 0x7f); }),
            "the JSON is one line, without anything that steers a terminal");
    require(decoded(relay::percentEncoded(line)) == line, "percent-encoding loses nothing");
    const bool isPercent = json.find("_percent\":") != std::string::npos;
    require(relay::isUtf8(line) || isPercent, "what is no UTF-8 is carried encoded");
}

void tryTarget(const std::string& line) {
    static const relay::Targets targets("/nonexistent");
    const relay::Located place = targets.locate(line);
    require(std::string(place.target) + std::string(place.name) == line, "the halves are the path");
}

void tryRun(const std::string& line) {
    static const relay::RunPattern pattern("/(?P<detector>[^/]*)/(?P<run>[^/]+)/(?P<index>[0-9]*)");
    relay::Record record;
    record.path = line;
    for (const relay::Kind kind : {relay::Kind::file, relay::Kind::run}) {
        record.kind = kind;
        const std::string run = relay::runOf(record, pattern);
        require(std::all_of(run.begin(), run.end(),
                            [](char each) { return each > 0x20 && each < 0x7f; }),
                "a run's name is percent-encoded");
    }
}

void tryFilter(const std::string& text) {
    relay::Filter filter;
    filter.paths.clear();
    for (const std::string& each : fuzz::split(text, '\n')) {
        (each.size() % 2 == 0 ? filter.paths : filter.detectors).push_back(each);
    }
    require(relay::parseFilterText(relay::filterText(filter)) == filter,
            "a filter comes back from its text");
    const auto start = relay::parseStart(text);
    require(!start || start->where != relay::Start::Where::sequence || start->value >= 0,
            "no sequence number is negative");
    relay::parseTime(text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::text(data, size);
    tryFilter(text);
    for (const std::string& line : fuzz::split(text, '\n')) {
        tryJson(line);
        tryRun(line);
        tryTarget(line);
    }
    return 0;
}
