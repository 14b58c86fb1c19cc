// skarnctl check: what the daemon would do with a configuration, and what is wrong with it.
#include "control/check/check_command.h"

#include "control/check/check_report.h"
#include "control/check/config_findings.h"
#include "control/check/host_findings.h"
#include "control/command.h"
#include "utilities/text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

namespace control {

namespace {

constexpr int warningsStatus = 1;
constexpr int errorsStatus = 2;

struct CheckOptions {
    std::optional<std::string> file;
    std::optional<std::string> user;
    std::vector<std::string> detectors;
    bool asJson = false;
    bool noNetwork = false;
};

/// As the daemon would be given them.
std::vector<std::string> startOptionsOf(const CheckOptions& options) {
    std::vector<std::string> words;
    if (options.user) {
        words = {"-u", *options.user};
    }
    for (const std::string& detector : options.detectors) {
        words.insert(words.end(), {"-d", detector});
    }
    return words;
}

/// The file that the daemon, which is root, reads: the first that exists, whether or not this
/// process may. Empty if there is none.
std::string findFile() {
    for (const std::string& path : configFilePaths()) {
        struct stat status = {};
        if (path == findConfigFile() || stat(path.c_str(), &status) == 0 || errno == EACCES) {
            return path;
        }
    }
    return {};
}

/// Looks at the file of `report` with its start options; asks the detectors `withNetwork`.
void fill(CheckReport& report, bool isNamed, bool withNetwork) {
    const auto add = [&report](const Findings& found) {
        report.findings.insert(report.findings.end(), found.begin(), found.end());
    };
    FileText file;
    if (report.file.empty() && !isNamed) {
        file.problem = "no configuration: neither " + configFilePaths()[0] + " nor " +
                       configFilePaths()[1] + " exists";
    } else {
        file = readConfigFile(report.file);
    }
    if (!file.text) {
        add({{Severity::fatal, "unreadable", 0, report.file, file.problem,
              "name a file that can be read"}});
        return;
    }
    report.view.emplace(*file.text);
    LoadedConfiguration loaded = makeConfiguration(report.view->text(), report.startOptions);
    if (!loaded.configuration) {
        add({{Severity::fatal, "bad-start-option", 0, "", loaded.problem,
              "correct the start options; what follows leaves them aside",
              Finding::About::startOptions}});
        report.startOptions.clear();
        loaded = makeConfiguration(report.view->text(), {});
    }
    report.configuration = std::move(loaded.configuration);

    const std::vector<TargetLook> targets = lookAtTargets(*report.configuration);
    std::vector<std::string> folders;
    folders.reserve(targets.size());
    for (const TargetLook& look : targets) {
        folders.push_back(look.folder);
    }
    add(findInConfiguration(*report.view, *report.configuration, report.startOptions, folders));
    const Findings onHost = findOnHost(*report.configuration, report.file, targets);
    add(onHost);
    const bool canList = std::none_of(onHost.begin(), onHost.end(), [](const Finding& finding) {
        return finding.severity != Severity::warning &&
               (finding.code == "password-file" || finding.code == "copy-program");
    });
    if (withNetwork && canList && geteuid() == 0) {
        add(findInShares(*report.configuration));
    }
}

int check(const CheckOptions& options) {
    CheckReport report;
    report.file = options.file.value_or(findFile());
    report.startOptions = startOptionsOf(options);
    if (!options.file && report.startOptions.empty()) {
        report.startOptions = unitOptions();
        report.optionsFile = report.startOptions.empty() ? "" : unitOptionsFile;
    }
    fill(report, options.file.has_value(), !options.noNetwork);

    if (!report.configuration) {
        complain(report.findings.front().text);
    }
    const std::string output = options.asJson         ? checkJson(report)
                               : report.configuration ? checkText(report, usesUnicode())
                                                      : "";
    if (print(output) || countErrors(report.findings) > 0) {
        return errorsStatus;
    }
    return report.findings.empty() ? 0 : warningsStatus;
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
        if (value.substr(0, key.size()) == key) {
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
    CheckReport report;
    report.file = findFile();
    report.startOptions = startOptions;
    fill(report, false, false);
    for (const Finding& finding : report.findings) {
        if (finding.severity == Severity::fatal) {
            return finding.text;
        }
    }
    return {};
}

void addCheckCommand(CLI::App& app, int& exitStatus) {
    CLI::App* const command =
        app.add_subcommand("check", "Say what the daemon would do with a configuration, and every "
                                    "mistake in it or on this host");
    const auto options = std::make_shared<CheckOptions>();
    command->add_option("FILE", options->file,
                        "The configuration; by default the one that the daemon reads");
    command->add_option("-u,--user", options->user, "The daemon's start option")
        ->type_name("UID:GID")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    command->add_option("-d,--detector", options->detectors, "The daemon's start option")
        ->type_name("ID:SOURCE:TARGET")
        ->allow_extra_args(false);
    command->add_flag("--json", options->asJson, "Print JSON");
    command->add_flag("--no-network", options->noNetwork,
                      "Do not list the detectors' shares, each of which is listed once otherwise");
    command->footer("Exit status: 0 no mistakes, 1 warnings, 2 errors (also when the file can't be "
                    "read).");
    command->callback([options, &exitStatus] {
        try {
            exitStatus = check(*options);
        } catch (const std::exception& error) {
            complain(error.what());
            exitStatus = errorsStatus; // 1 would say that there are but warnings
        }
    });
}

} // namespace control
