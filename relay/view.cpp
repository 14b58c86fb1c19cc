// What the page shows, as one JSON object.
#include "relay/view.h"

#include "shares/files.h"

#include <nlohmann/json.hpp>

#include <sys/stat.h>

namespace relay {

namespace {

constexpr double nanosecond = 1e-9;
constexpr std::int64_t second = 1000000000;
constexpr std::int64_t shortestPause = second * 9 / 10; // between two notes
constexpr std::size_t secondsShown = 300;
constexpr std::int64_t runsShown = 20;
constexpr std::size_t spansShown = 20;
constexpr std::int64_t runsAge = 2 * second; // asking for their gaps takes the log's time

} // namespace

View::View(std::string fromFigures, Runs* ofRuns) : figures(std::move(fromFigures)), runs(ofRuns) {
}

void View::note(std::int64_t time, std::int64_t records, std::int64_t bytes) {
    const std::lock_guard<std::mutex> guard(mutex);
    if (time > notedAt && time - notedAt < shortestPause) {
        return;
    }
    if (notedAt != 0 && time > notedAt) {
        const double passed = static_cast<double>(time - notedAt) * nanosecond;
        rates.emplace_back(static_cast<double>(records - noted.first) / passed,
                           static_cast<double>(bytes - noted.second) / passed);
        if (rates.size() > secondsShown) {
            rates.pop_front();
        }
    }
    notedAt = time;
    noted = {records, bytes};
}

std::string View::json(const Status& status) {
    const std::lock_guard<std::mutex> guard(mutex);
    Json object = {{"now", static_cast<double>(now()) * nanosecond},
                   {"status", jsonOf(status)},
                   {"files", Json::array()},
                   {"bytes", Json::array()},
                   {"look", look()},
                   {"runs", latestRuns()}};
    for (const auto& [files, bytes] : rates) {
        object["files"].push_back(files);
        object["bytes"].push_back(bytes);
    }
    return jsonText(object) + "\n";
}

Json View::look() const {
    struct stat status {};
    const auto text = confirming::readTextFile(figures);
    if (!text || ::stat(figures.c_str(), &status) != 0) {
        return {};
    }
    const std::int64_t written = status.st_mtim.tv_sec * second + status.st_mtim.tv_nsec;
    return {{"age", static_cast<double>(now() - written) * nanosecond}, {"text", *text}};
}

Json View::latestRuns() {
    if (runs == nullptr) {
        return {};
    }
    if (now() - runsFrom > runsAge) {
        Json list = Json::array();
        for (const Run& each : runs->latest(runsShown)) {
            list.push_back(runs->describe(each, spansShown));
        }
        told = list.dump();
        runsFrom = now();
    }
    return Json::parse(told);
}

} // namespace relay
