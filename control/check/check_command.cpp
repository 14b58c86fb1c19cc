// skarnctl check: what the daemon would do with a configuration, and what is wrong with it.
#include "control/check/findings.h"
#include "control/command.h"
#include "control/display_text.h"
#include "daemon/global.h"
#include "transfer/copy_command.h"
#include "utilities/text.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <nlohmann/json.hpp>
#include <sstream>

#include <unistd.h>

namespace control {

using nlohmann::json;

NLOHMANN_JSON_SERIALIZE_ENUM(Severity, {{Severity::error, "error"},
                                        {Severity::fatal, "error"},
                                        {Severity::warning, "warning"}})
NLOHMANN_JSON_SERIALIZE_ENUM(Finding::About, {{Finding::About::configuration, "configuration"},
                                              {Finding::About::startOptions, "start options"},
                                              {Finding::About::host, "host"}})

namespace {

constexpr int warningsStatus = 1;
constexpr int errorsStatus = 2;

/// What is looked at, and what was found there.
struct Report {
    std::string file;                           // empty if none was found
    std::vector<std::string> startOptions;      // as given
    std::string optionsFile;                    // that they stand in; empty if it is none
    std::optional<Configuration> configuration; // nothing if the file can't be read
    std::optional<ConfigView> view;             // the same
    Findings findings;                          // of the file, then of the host

    void add(const Findings& found) { findings.insert(findings.end(), found.begin(), found.end()); }
    std::size_t errors() const {
        return static_cast<std::size_t>(
            std::count_if(findings.begin(), findings.end(),
                          [](const Finding& one) { return one.severity != Severity::warning; }));
    }
};

/// The file that the daemon, which is root, reads: the first that exists, whether or not this
/// process may. Empty if there is none.
std::string findFile() {
    for (const std::string& path : configFilePaths()) {
        if (access(path.c_str(), F_OK) == 0 || errno == EACCES) {
            return path;
        }
    }
    return {};
}

/// Looks at a file with start options; asks the detectors `withNetwork`. Without a name it is the
/// daemon's own.
Report look(const std::optional<std::string>& name, const std::vector<std::string>& startOptions,
            bool withNetwork) {
    Report report;
    report.file = name.value_or(findFile());
    report.startOptions = startOptions;
    FileText file;
    if (report.file.empty() && !name) {
        file.problem = "no configuration: neither " + configFilePaths()[0] + " nor " +
                       configFilePaths()[1] + " exists";
    } else {
        file = readConfigFile(report.file);
    }
    if (!file.text) {
        report.add({{Severity::fatal, "unreadable", 0, report.file, file.problem,
                     "name a file that can be read"}});
        return report;
    }
    report.view.emplace(*file.text);
    LoadedConfiguration loaded = makeConfiguration(report.view->text, startOptions);
    if (!loaded.configuration) {
        report.add({{Severity::fatal, "bad-start-option", 0, "", loaded.problem,
                     "correct the start options; what follows leaves them aside",
                     Finding::About::startOptions}});
        report.startOptions.clear();
        loaded = makeConfiguration(report.view->text, {});
    }
    report.configuration = std::move(loaded.configuration);

    const HostFindings host = findOnHost(*report.configuration, report.file);
    report.add(findInConfiguration(*report.view, *report.configuration, report.startOptions,
                                   host.folders));
    report.add(host.findings);
    const bool canList =
        std::none_of(host.findings.begin(), host.findings.end(), [](const Finding& finding) {
            return finding.severity != Severity::warning &&
                   (finding.code == "password-file" || finding.code == "copy-program");
        });
    if (withNetwork && canList && geteuid() == 0) {
        report.add(findInShares(*report.configuration));
    }
    return report;
}

json pauseJson(const Pause& pause, const std::string& detector) {
    const bool isDefault = pause.line == 0;
    return {{"milliseconds", pause.milliseconds},
            {"from", isDefault                    ? "default"
                     : pause.detector == detector ? "own"
                                                  : "inherited"},
            {"line", isDefault ? json() : json(pause.line)},
            {"detector", isDefault ? json() : json(pause.detector)}};
}

/// The daemon's plan and what is wrong with it, for programs.
json asJson(const Report& report) {
    const std::size_t errors = report.errors();
    json made = {{"file", report.file.empty() ? json() : json(report.file)},
                 {"start_options", report.startOptions},
                 {"settings", nullptr},
                 {"detectors", json::array()},
                 {"findings", json::array()},
                 {"errors", errors},
                 {"warnings", report.findings.size() - errors}};
    if (report.configuration) {
        made["settings"] = settingsOf(*report.configuration);
        // The daemon's own words, which take the owner from its settings.
        GLOBAL::uid = report.configuration->uid;
        GLOBAL::gid = report.configuration->gid;
        for (const Detector& detector : report.configuration->detectors) {
            const ConfigBlock& block = *report.view->servedBlock(detector.id);
            made["detectors"].push_back(
                {{"id", detector.id},
                 {"line", block.line},
                 {"remoteIP", detector.remoteIp},
                 {"share_url", detector.shareUrl},
                 {"listing_command", listingCommand(detector.shareUrl)},
                 {"target", detector.target},
                 {"destination", detector.destination()},
                 {"owner_command", report.configuration->usrdir.empty()
                                       ? json()
                                       : json(changeOwnerCommand(detector.target))},
                 {"minpause", pauseJson(block.pauses.at("minpause"), detector.id)},
                 {"interrun_pause", pauseJson(block.pauses.at("interrun_pause"), detector.id)}});
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
    return made;
}

std::string words(const json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string counted(const json& number, const char* word) {
    return number.dump() + " " + word + (number == 1 ? "" : "s");
}

/// What stands in a settings' line: the value, and where it comes from.
std::string settingText(const Report& report, const std::string& key, const json& value) {
    std::string text = words(value);
    if (text.empty()) {
        return "not set";
    }
    if (key == "logfile_max_size") {
        const int size = value;
        text += " bytes";
        text += size < 0      ? ", that is never"
                : size < 1024 ? ""
                              : ", " + byteText(static_cast<std::uint64_t>(size));
    }
    const auto& options = report.startOptions;
    const KeyUse* const use = report.view->settings.lookUp(key);
    const bool isOption = (key == "uid" || key == "gid") &&
                          std::find(options.begin(), options.end(), "-u") != options.end();
    return text + "  (" +
           (isOption                        ? "start option"
            : use == nullptr || !use->taken ? "default"
                                            : "line " + std::to_string(use->line)) +
           ")";
}

/// The same for people; each line ends in a line feed. Nothing in it steers a terminal.
std::string asText(const Report& report, const json& made) {
    const bool unicode = usesUnicode();
    std::ostringstream text;
    const auto line = [&](const std::string& content) {
        text << displayable(content, unicode) << '\n';
    };
    const auto row = [&line](std::size_t indent, const std::string& name,
                             const std::string& content) {
        const std::string padding(24 - 2 * indent - name.size(), ' ');
        line(std::string(indent, ' ') + name + padding + content);
    };
    line("Configuration: " + report.file);
    if (!report.optionsFile.empty()) {
        std::string options;
        for (const std::string& word : report.startOptions) {
            options += " " + word;
        }
        line("Start options:" + options + "  (" + report.optionsFile + ")");
    }
    line("");
    line("Settings");
    const auto settings = settingsOf(*report.configuration);
    for (const auto& [key, value] : settings.items()) {
        row(2, key, settingText(report, key, value));
    }
    line("");
    line(made["detectors"].empty() ? "No detectors" : "Detectors, in the order of their start");
    for (const json& detector : made["detectors"]) {
        line("  " + inQuotes(words(detector["id"])) + "  (line " + words(detector["line"]) + ")");
        row(4, "share", words(detector["share_url"]));
        row(4, "target", words(detector["target"]));
        if (!detector["owner_command"].is_null()) {
            row(4, "owner", words(detector["owner_command"]));
        }
        for (const char* const key : {"minpause", "interrun_pause"}) {
            const json& pause = detector[key];
            row(4, key,
                words(pause["milliseconds"]) + " ms  (" +
                    (pause["from"] == "inherited"
                         ? "of detector " + inQuotes(words(pause["detector"])) + ", "
                         : "") +
                    (pause["from"] == "default" ? "default" : "line " + words(pause["line"])) +
                    ")");
        }
    }
    line("");
    for (const json& finding : made["findings"]) {
        const std::string place =
            finding["file"].is_null()
                ? words(finding["about"])
                : report.file + (finding["line"].is_null() ? "" : ":" + words(finding["line"]));
        line(place + ": " + words(finding["severity"]) + ": " + words(finding["text"]) + " [" +
             words(finding["code"]) + "]");
        line("    " + words(finding["advice"]));
    }
    line(report.findings.empty()
             ? "no mistakes found"
             : counted(made["errors"], "error") + ", " + counted(made["warnings"], "warning"));
    return text.str();
}

} // namespace

std::vector<std::string> unitOptions() {
    constexpr std::size_t enough = 65536;
    constexpr std::string_view key = "SKARN_OPTIONS=";
    std::vector<std::string> words;
    std::istringstream lines(readFile(unitOptionsFile, enough).text.value_or(""));
    std::string line;
    while (std::getline(lines, line)) {
        std::string_view value = trimmed(line);
        if (UTILITIES::stringBegin(value, key)) {
            value.remove_prefix(key.size());
            const bool isQuoted = value.size() > 1 && value.front() == value.back() &&
                                  (value.front() == '"' || value.front() == '\'');
            value = isQuoted ? value.substr(1, value.size() - 2) : value;
            words = UTILITIES::splitWords(std::string(value), ' ');
        }
    }
    return words;
}

std::string whatIsFatal(const std::vector<std::string>& startOptions) {
    for (const Finding& finding : look({}, startOptions, false).findings) {
        if (finding.severity == Severity::fatal) {
            return finding.text;
        }
    }
    return {};
}

int runCheck(const CheckOptions& options) {
    const bool isOfUnit = !options.file && options.startOptions.empty();
    try {
        Report report =
            look(options.file, isOfUnit ? unitOptions() : options.startOptions, !options.noNetwork);
        report.optionsFile = isOfUnit && !report.startOptions.empty() ? unitOptionsFile : "";
        const json made = asJson(report);
        if (!report.configuration) {
            complain(report.findings.front().text);
        }
        const std::string output =
            options.asJson         ? made.dump(2, ' ', true, json::error_handler_t::replace) + "\n"
            : report.configuration ? asText(report, made)
                                   : "";
        if (!print(output) && report.errors() == 0) {
            return report.findings.empty() ? succeeded : warningsStatus;
        }
    } catch (const std::exception& error) {
        complain(error.what()); // with this status: 1 would say that there are but warnings
    }
    return errorsStatus;
}

} // namespace control
