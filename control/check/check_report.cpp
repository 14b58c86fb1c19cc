// What a check of a configuration found, as text and as JSON.
#include "control/check/check_report.h"

#include "control/observe/display_text.h"
#include "daemon/global.h"
#include "transfer/copy_command.h"

#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

namespace control {

namespace {

using nlohmann::json;

/// One detector as it is served, with the block that defines it.
struct Plan {
    const Detector& detector;
    const ConfigBlock& block;
    const BlockPauses& pauses;
};

/// The plans in the order in which the daemon starts them.
std::vector<Plan> plansOf(const CheckReport& report) {
    std::map<std::string, std::size_t> served;
    const std::vector<ConfigBlock>& blocks = report.view->blocks();
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        served[blocks[i].id] = i;
    }
    std::vector<Plan> plans;
    for (const Detector& detector : report.configuration->detectors) {
        const std::size_t block = served.at(detector.id);
        plans.push_back({detector, blocks[block], report.view->pauses()[block]});
    }
    return plans;
}

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

std::string originText(const Origin& origin) {
    switch (origin.kind) {
    case Origin::Kind::own:
        return "line " + std::to_string(origin.line);
    case Origin::Kind::inherited:
        return "of detector " + inQuotes(origin.detector) + ", line " + std::to_string(origin.line);
    case Origin::Kind::byDefault:
        break;
    }
    return "default";
}

std::string pluralOf(std::size_t number, const char* word) {
    return std::to_string(number) + " " + word + (number == 1 ? "" : "s");
}

const char* nameOf(Severity severity) {
    return severity == Severity::warning ? "warning" : "error";
}

const char* nameOf(Finding::About about) {
    switch (about) {
    case Finding::About::configuration:
        return "configuration";
    case Finding::About::startOptions:
        return "start options";
    case Finding::About::host:
        break;
    }
    return "host";
}

/// Writes a report line by line, each made fit for a terminal.
class TextReport {
public:
    TextReport(const CheckReport& checked, bool showUnicode)
        : report(checked), unicode(showUnicode) {}

    std::string write() {
        line("Configuration: " + report.file);
        if (report.configuration) {
            writeSettings();
            writeDetectors();
        }
        writeFindings();
        return text.str();
    }

private:
    void line(const std::string& content) { text << displayable(content, unicode) << '\n'; }

    /// Where a setting stands, when the value that counts is the file's.
    std::string placeOf(const char* key) const {
        const KeyUse* const use = report.view->find(key);
        return use == nullptr || !use->hasValue ? "default" : "line " + std::to_string(use->line);
    }

    std::string ownerText(const char* key, const std::string& value) const {
        if (value.empty()) {
            return "not set";
        }
        for (std::size_t i = 0; i < report.startOptions.size(); i += 2) {
            if (report.startOptions[i] == "-u") {
                return value + "  (start option)";
            }
        }
        return value + "  (" + placeOf(key) + ")";
    }

    void writeSettings() {
        const Configuration& settings = *report.configuration;
        const int size = settings.logFileMaxSize;
        std::string limit = std::to_string(size) + " bytes";
        if (size < 0) {
            limit += ", that is never";
        } else if (size >= 1024) {
            limit += ", " + byteText(static_cast<std::uint64_t>(size));
        }
        const std::string number = std::to_string(settings.logFileMaxNumber);
        line("");
        line("Settings");
        line("  logfile             " + settings.logFileName + "  (" + placeOf("logfile") + ")");
        line("  logfile_max_size    " + limit + "  (" + placeOf("logfile_max_size") + ")");
        line("  logfile_max_number  " + number + "  (" + placeOf("logfile_max_number") + ")");
        line("  uid                 " + ownerText("uid", settings.uid));
        line("  gid                 " + ownerText("gid", settings.gid));
        line("  usrdir              " + (settings.usrdir.empty()
                                             ? "not set"
                                             : settings.usrdir + "  (" + placeOf("usrdir") + ")"));
    }

    void writeDetectors() {
        line("");
        const std::vector<Plan> plans = plansOf(report);
        line(plans.empty() ? "No detectors" : "Detectors, in the order of their start");
        for (const Plan& plan : plans) {
            line("  " + inQuotes(plan.detector.id) + "  (line " + std::to_string(plan.block.line) +
                 ")");
            line("    share           " + plan.detector.shareUrl);
            line("    target          " + plan.detector.target);
            const std::string owner = ownerCommand(*report.configuration, plan.detector);
            if (!owner.empty()) {
                line("    owner           " + owner);
            }
            line("    minpause        " + std::to_string(plan.detector.minPause) + " ms  (" +
                 originText(plan.pauses.minPauseOrigin) + ")");
            line("    interrun_pause  " + std::to_string(plan.detector.interrunPause) + " ms  (" +
                 originText(plan.pauses.interrunPauseOrigin) + ")");
        }
    }

    void writeFindings() {
        line("");
        for (const Finding& finding : report.findings) {
            std::string place = nameOf(finding.about);
            if (finding.about == Finding::About::configuration) {
                place = report.file;
                place += finding.line > 0 ? ":" + std::to_string(finding.line) : "";
            }
            line(place + ": " + nameOf(finding.severity) + ": " + finding.text + " [" +
                 finding.code + "]");
            line("    " + finding.advice);
        }
        if (report.findings.empty()) {
            line("no mistakes found");
            return;
        }
        line(pluralOf(count(report.findings, Severity::error), "error") + ", " +
             pluralOf(count(report.findings, Severity::warning), "warning"));
    }

    const CheckReport& report;
    bool unicode;
    std::ostringstream text;
};

json originJson(int milliseconds, const Origin& origin) {
    json made = {{"milliseconds", milliseconds},
                 {"from", "default"},
                 {"line", nullptr},
                 {"detector", nullptr}};
    if (origin.kind != Origin::Kind::byDefault) {
        made["from"] = origin.kind == Origin::Kind::own ? "own" : "inherited";
        made["line"] = origin.line;
        made["detector"] = origin.detector;
    }
    return made;
}

json detectorJson(const Plan& plan, const Configuration& configuration) {
    const Detector& detector = plan.detector;
    const std::string owner = ownerCommand(configuration, detector);
    return {
        {"id", detector.id},
        {"line", plan.block.line},
        {"remoteIP", detector.remoteIp},
        {"share_url", detector.shareUrl},
        {"listing_command", listingCommand(detector.shareUrl)},
        {"target", detector.target},
        {"destination", detector.destination()},
        {"owner_command", owner.empty() ? json(nullptr) : json(owner)},
        {"minpause", originJson(detector.minPause, plan.pauses.minPauseOrigin)},
        {"interrun_pause", originJson(detector.interrunPause, plan.pauses.interrunPauseOrigin)}};
}

json findingJson(const Finding& finding, const std::string& file) {
    const bool isOfFile = finding.about == Finding::About::configuration;
    return {{"severity", nameOf(finding.severity)},
            {"code", finding.code},
            {"about", nameOf(finding.about)},
            {"file", isOfFile ? json(file) : json(nullptr)},
            {"line", finding.line > 0 ? json(finding.line) : json(nullptr)},
            {"subject", finding.subject},
            {"text", finding.text},
            {"advice", finding.advice}};
}

} // namespace

std::string checkText(const CheckReport& report, bool unicode) {
    return TextReport(report, unicode).write();
}

std::string checkJson(const CheckReport& report) {
    json made = {{"file", report.file.empty() ? json(nullptr) : json(report.file)},
                 {"start_options", report.startOptions},
                 {"settings", nullptr},
                 {"detectors", json::array()},
                 {"findings", json::array()},
                 {"errors", count(report.findings, Severity::error)},
                 {"warnings", count(report.findings, Severity::warning)}};
    if (report.configuration) {
        const Configuration& settings = *report.configuration;
        made["settings"] = {{"logfile", settings.logFileName},
                            {"logfile_max_size", settings.logFileMaxSize},
                            {"logfile_max_number", settings.logFileMaxNumber},
                            {"uid", settings.uid},
                            {"gid", settings.gid},
                            {"usrdir", settings.usrdir}};
        for (const Plan& plan : plansOf(report)) {
            made["detectors"].push_back(detectorJson(plan, settings));
        }
    }
    for (const Finding& finding : report.findings) {
        made["findings"].push_back(findingJson(finding, report.file));
    }
    constexpr int indent = 2;
    return made.dump(indent, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace control
