// What a check of a configuration found, as text and as JSON.
#include "control/check/check_report.h"

#include "control/display_text.h"
#include "daemon/global.h"
#include "transfer/copy_command.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

namespace control {

using nlohmann::json;

NLOHMANN_JSON_SERIALIZE_ENUM(Severity, {{Severity::error, "error"},
                                        {Severity::fatal, "error"},
                                        {Severity::warning, "warning"}})
NLOHMANN_JSON_SERIALIZE_ENUM(Finding::About, {{Finding::About::configuration, "configuration"},
                                              {Finding::About::startOptions, "start options"},
                                              {Finding::About::host, "host"}})

namespace {

/// How the daemon gives a target to its owner in each cycle; empty if it does not.
std::string ownerCommand(const Configuration& configuration, const Detector& detector) {
    if (configuration.usrdir.empty()) {
        return {};
    }
    // The daemon's own words, which take the owner from its settings.
    GLOBAL::uid = configuration.uid;
    GLOBAL::gid = configuration.gid;
    return changeOwnerCommand(detector.target);
}

/// A word for what the value of a setting comes from.
std::string placeOf(const CheckReport& report, const char* key) {
    const bool isOwner = key == std::string_view("uid") || key == std::string_view("gid");
    const auto& words = report.startOptions;
    if (isOwner && std::find(words.begin(), words.end(), "-u") != words.end()) {
        return "start option";
    }
    const KeyUse* const use = report.view->find(key);
    return use == nullptr || !use->taken ? "default" : "line " + std::to_string(use->line);
}

std::string pauseText(const Pause& pause, const Detector& detector) {
    std::string text = std::to_string(pause.milliseconds) + " ms  (";
    if (pause.line == 0) {
        return text + "default)";
    }
    if (pause.detector != detector.id) {
        text += "of detector " + inQuotes(pause.detector) + ", ";
    }
    return text + "line " + std::to_string(pause.line) + ")";
}

std::string pluralOf(std::size_t number, const char* word) {
    return std::to_string(number) + " " + word + (number == 1 ? "" : "s");
}

json orNull(const std::string& text) {
    return text.empty() ? json() : json(text);
}

json pauseJson(const Pause& pause, const Detector& detector) {
    const bool isDefault = pause.line == 0;
    return {{"milliseconds", pause.milliseconds},
            {"from", isDefault                       ? "default"
                     : pause.detector == detector.id ? "own"
                                                     : "inherited"},
            {"line", isDefault ? json() : json(pause.line)},
            {"detector", isDefault ? json() : json(pause.detector)}};
}

} // namespace

std::string checkText(const CheckReport& report, bool unicode) {
    std::ostringstream text;
    const auto line = [&](const std::string& content) {
        text << displayable(content, unicode) << '\n';
    };
    line("Configuration: " + report.file);
    if (!report.optionsFile.empty()) {
        std::string words;
        for (const std::string& word : report.startOptions) {
            words += " " + word;
        }
        line("Start options:" + words + "  (" + report.optionsFile + ")");
    }
    if (report.configuration) {
        const Configuration& settings = *report.configuration;
        const int size = settings.logFileMaxSize;
        const auto setting = [&](const char* key, const std::string& value) {
            const std::string name = std::string("  ") + key;
            line(name + std::string(22 - name.size(), ' ') +
                 (value.empty() ? "not set" : value + "  (" + placeOf(report, key) + ")"));
        };
        line("");
        line("Settings");
        setting("logfile", settings.logFileName);
        setting("logfile_max_size",
                std::to_string(size) + " bytes" +
                    (size < 0      ? ", that is never"
                     : size < 1024 ? ""
                                   : ", " + byteText(static_cast<std::uint64_t>(size))));
        setting("logfile_max_number", std::to_string(settings.logFileMaxNumber));
        setting("uid", settings.uid);
        setting("gid", settings.gid);
        setting("usrdir", settings.usrdir);

        line("");
        line(settings.detectors.empty() ? "No detectors"
                                        : "Detectors, in the order of their start");
        for (const Detector& detector : settings.detectors) {
            const ConfigBlock& block = *report.view->servedBlock(detector.id);
            const std::string owner = ownerCommand(settings, detector);
            line("  " + inQuotes(detector.id) + "  (line " + std::to_string(block.line) + ")");
            line("    share           " + detector.shareUrl);
            line("    target          " + detector.target);
            if (!owner.empty()) {
                line("    owner           " + owner);
            }
            line("    minpause        " + pauseText(block.minPause, detector));
            line("    interrun_pause  " + pauseText(block.interrunPause, detector));
        }
    }
    line("");
    for (const Finding& finding : report.findings) {
        std::string place = json(finding.about).get<std::string>();
        if (finding.about == Finding::About::configuration) {
            place = report.file + (finding.line > 0 ? ":" + std::to_string(finding.line) : "");
        }
        line(place + ": " + json(finding.severity).get<std::string>() + ": " + finding.text + " [" +
             finding.code + "]");
        line("    " + finding.advice);
    }
    line(report.findings.empty() ? "no mistakes found"
                                 : pluralOf(countErrors(report.findings), "error") + ", " +
                                       pluralOf(countWarnings(report.findings), "warning"));
    return text.str();
}

std::string checkJson(const CheckReport& report) {
    json made = {{"file", orNull(report.file)},
                 {"start_options", report.startOptions},
                 {"settings", nullptr},
                 {"detectors", json::array()},
                 {"findings", json::array()},
                 {"errors", countErrors(report.findings)},
                 {"warnings", countWarnings(report.findings)}};
    if (report.configuration) {
        const Configuration& settings = *report.configuration;
        made["settings"] = {{"logfile", settings.logFileName},
                            {"logfile_max_size", settings.logFileMaxSize},
                            {"logfile_max_number", settings.logFileMaxNumber},
                            {"uid", settings.uid},
                            {"gid", settings.gid},
                            {"usrdir", settings.usrdir}};
        for (const Detector& detector : settings.detectors) {
            const ConfigBlock& block = *report.view->servedBlock(detector.id);
            made["detectors"].push_back(
                {{"id", detector.id},
                 {"line", block.line},
                 {"remoteIP", detector.remoteIp},
                 {"share_url", detector.shareUrl},
                 {"listing_command", listingCommand(detector.shareUrl)},
                 {"target", detector.target},
                 {"destination", detector.destination()},
                 {"owner_command", orNull(ownerCommand(settings, detector))},
                 {"minpause", pauseJson(block.minPause, detector)},
                 {"interrun_pause", pauseJson(block.interrunPause, detector)}});
        }
    }
    for (const Finding& finding : report.findings) {
        const bool isOfFile = finding.about == Finding::About::configuration;
        made["findings"].push_back({{"severity", finding.severity},
                                    {"code", finding.code},
                                    {"about", finding.about},
                                    {"file", isOfFile ? json(report.file) : json()},
                                    {"line", finding.line > 0 ? json(finding.line) : json()},
                                    {"subject", finding.subject},
                                    {"text", finding.text},
                                    {"advice", finding.advice}});
    }
    constexpr int indent = 2;
    return made.dump(indent, ' ', true, json::error_handler_t::replace) + "\n";
}

} // namespace control
