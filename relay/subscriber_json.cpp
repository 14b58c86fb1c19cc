// The settings of subscribers that are made over HTTP, as JSON.
#include "relay/subscriber_json.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <vector>

namespace relay {

namespace {

std::optional<std::vector<std::string>> textsIn(const nlohmann::json& value) {
    std::vector<std::string> texts;
    if (!value.is_array()) {
        return std::nullopt;
    }
    for (const nlohmann::json& each : value) {
        if (!each.is_string()) {
            return std::nullopt;
        }
        texts.push_back(each.get<std::string>());
    }
    return texts;
}

std::string readKinds(const nlohmann::json& value, Filter& filter) {
    const auto names = textsIn(value);
    std::vector<Kind> kinds;
    for (const std::string& name : names.value_or(std::vector<std::string>())) {
        const auto kind = kindNamed(name);
        if (!kind) {
            return "\"" + name + "\" is no kind: file, usershift, run and other are";
        }
        kinds.push_back(*kind);
    }
    if (kinds.empty()) {
        return "\"kinds\" must be a list of at least one kind";
    }
    filter.kinds = std::move(kinds);
    return {};
}

std::string readStart(const nlohmann::json& value, Start& start) {
    const std::string text = value.is_string()            ? value.get<std::string>()
                             : value.is_number_unsigned() ? value.dump()
                                                          : std::string();
    const auto parsed = parseStart(text);
    if (!parsed) {
        return "\"start\" must be oldest, now, a time or a sequence number";
    }
    start = *parsed;
    return {};
}

std::string readEntry(const std::string& key, const nlohmann::json& value,
                      SubscriberSettings& settings) {
    if (key == "detectors" || key == "paths") {
        auto texts = textsIn(value);
        if (!texts) {
            return "\"" + key + "\" must be a list of texts";
        }
        (key == "paths" ? settings.filter.paths : settings.filter.detectors) = std::move(*texts);
        return {};
    }
    if (key == "kinds") {
        return readKinds(value, settings.filter);
    }
    if (key == "start") {
        return readStart(value, settings.start);
    }
    if (key == "max_backlog") {
        constexpr std::int64_t most = 1000000000000;
        if (!value.is_number_unsigned() || value.get<std::uint64_t>() > most) {
            return "\"max_backlog\" must be a number of records, from 0 to " + std::to_string(most);
        }
        settings.maxBacklog = value.get<std::int64_t>();
        return {};
    }
    return "\"" + key + "\" is not known";
}

} // namespace

std::string readSubscriberJson(const std::string& json, SubscriberSettings& settings) {
    if (json.empty()) {
        return {};
    }
    const nlohmann::json object = nlohmann::json::parse(json, nullptr, false);
    if (!object.is_object()) {
        return "the request's body must be a JSON object";
    }
    for (const auto& [key, value] : object.items()) {
        std::string problem = readEntry(key, value, settings);
        if (!problem.empty()) {
            return problem;
        }
    }
    return {};
}

std::string subscriberJson(const SubscriberSettings& settings) {
    nlohmann::json object = {{"detectors", settings.filter.detectors},
                             {"paths", settings.filter.paths},
                             {"max_backlog", settings.maxBacklog}};
    for (const Kind kind : settings.filter.kinds) {
        object["kinds"].push_back(nameOf(kind));
    }
    return object.dump();
}

} // namespace relay
