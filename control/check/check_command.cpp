// skarnctl check: what the daemon would do with a configuration, and what is wrong with it.
#include "control/check/check_command.h"

#include "config/config_text.h"
#include "control/check/check_report.h"
#include "control/check/config_findings.h"
#include "control/check/host_findings.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <sstream>

#include <langinfo.h>
#include <sys/stat.h>

namespace control {

namespace {

constexpr int warningsStatus = 1;
constexpr int errorsStatus = 2;

struct CheckOptions {
    std::vector<std::string> startOptions;
    std::string file;
    bool hasFile = false;
    std::string user;
    bool hasUser = false;
    std::vector<std::string> detectors;
    bool asJson = false;
};

/// As the daemon would be given them.
std::vector<std::string> startOptionsOf(const CheckOptions& options) {
    std::vector<std::string> words;
    if (options.hasUser) {
        words = {"-u", options.user};
    }
    for (const std::string& detector : options.detectors) {
        words.insert(words.end(), {"-d", detector});
    }
    return words;
}

/// The file to check. If there is none, the name is empty and `problem` says why.
std::string chooseFile(const CheckOptions& options, std::string& problem) {
    if (options.hasFile) {
        return options.file;
    }
    const std::optional<std::string> found = findConfigFile();
    // The daemon, which is root, reads the first that exists, whether or not this process may.
    for (const std::string& path : configFilePaths()) {
        struct stat status = {};
        if (path == found) {
            return path;
        }
        if (stat(path.c_str(), &status) == 0 || errno == EACCES) {
            return path; // reading it will tell the reason
        }
    }
    problem = "no configuration: neither " + configFilePaths()[0] + " nor " + configFilePaths()[1] +
              " exists";
    return {};
}

CheckReport makeReport(const CheckOptions& options) {
    CheckReport report;
    report.startOptions = options.startOptions;
    std::string problem;
    report.file = chooseFile(options, problem);
    FileText file;
    if (problem.empty()) {
        file = readConfigFile(report.file);
        problem = file.problem;
    }
    if (!file.text) {
        report.findings.push_back({Severity::fatal,
                                   "unreadable",
                                   0,
                                   report.file,
                                   problem,
                                   "name a file that can be read",
                                   {}});
        return report;
    }

    report.view.emplace(*file.text);
    const std::string& text = report.view->text();
    LoadedConfiguration loaded = makeConfiguration(text, report.startOptions);
    if (!loaded.configuration) {
        report.findings.push_back({Severity::fatal, "bad-start-option", 0, "", loaded.problem,
                                   "correct the start options; what follows leaves them aside",
                                   Finding::About::startOptions});
        report.startOptions.clear();
        loaded = makeConfiguration(text, {});
    }
    report.configuration = std::move(loaded.configuration);

    Findings found = findInConfiguration(*report.view, *report.configuration, report.startOptions);
    std::move(found.begin(), found.end(), std::back_inserter(report.findings));
    found = findOnHost(*report.configuration, report.file);
    std::move(found.begin(), found.end(), std::back_inserter(report.findings));
    return report;
}

int check(const CheckOptions& options) {
    // Only for telling which characters can be shown.
    std::setlocale(LC_CTYPE, "");
    const bool unicode = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;

    const CheckReport report = makeReport(options);
    if (!report.configuration) {
        complain(report.findings.front().text);
    }
    std::string output;
    if (options.asJson) {
        output = checkJson(report);
    } else if (report.configuration) {
        output = checkText(report, unicode);
    }
    if (std::fwrite(output.data(), 1, output.size(), stdout) != output.size() ||
        std::fflush(stdout) != 0) {
        complain(std::string("cannot write the result: ") + std::strerror(errno));
        return errorsStatus;
    }
    if (count(report.findings, Severity::error) > 0) {
        return errorsStatus;
    }
    return report.findings.empty() ? 0 : warningsStatus;
}

} // namespace

std::string whatIsFatal(const std::vector<std::string>& startOptions) {
    CheckOptions options;
    options.startOptions = startOptions;
    for (const Finding& finding : makeReport(options).findings) {
        if (finding.severity == Severity::fatal) {
            return finding.text;
        }
    }
    return {};
}

void addCheckCommand(CLI::App& app, const CommonOptions& /*common*/, int& exitStatus) {
    CLI::App* const command =
        app.add_subcommand("check", "Say what the daemon would do with a configuration, and every "
                                    "mistake in it or on this host");
    const auto options = std::make_shared<CheckOptions>();
    CLI::Option* const file = command->add_option(
        "FILE", options->file, "The configuration; by default the one that the daemon reads");
    CLI::Option* const user =
        command->add_option("-u,--user", options->user, "The daemon's start option")
            ->type_name("UID:GID")
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    command->add_option("-d,--detector", options->detectors, "The daemon's start option")
        ->type_name("ID:SOURCE:TARGET")
        ->allow_extra_args(false);
    command->add_flag("--json", options->asJson, "Print JSON");
    command->footer("Exit status: 0 no mistakes, 1 warnings, 2 errors (also when the file can't be "
                    "read).");
    command->callback([options, file, user, &exitStatus] {
        options->hasFile = file->count() > 0;
        options->hasUser = user->count() > 0;
        try {
            options->startOptions = startOptionsOf(*options);
            exitStatus = check(*options);
        } catch (const std::exception& error) {
            complain(error.what());
            exitStatus = errorsStatus; // 1 would say that there are but warnings
        }
    });
}

} // namespace control
