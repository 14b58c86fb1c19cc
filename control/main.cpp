// skarnctl: the command line, and the way to the subcommand that it names. Only this file includes
// the parser, which is large.
#include "control/command.h"
#include "control/service/service_commands.h"
#include "daemon/daemon.h"
#include "daemon/global.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace control {

namespace {

/// The daemon that is installed beside this program.
std::string daemonBeside() {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    return (self.parent_path() / GLOBAL::progName).string();
}

constexpr int secondsInADay = 86400;

/// The subcommands that start, stop and ask after the daemon. As all of these, it adds them to the
/// parser; once that has met one, its exit status stands in `status`. What is passed must outlive
/// the parsing.
void addServiceCommands(CLI::App& app, const CommonOptions& common, int& status) {
    app.add_subcommand("start", "Start the daemon; all words behind it are the daemon's: "
                                "[-u UID:GID] [-d DETECTOR_ID:SOURCE:TARGET]...")
        ->callback([&common, &status] { status = runStart(common); });

    // Adds --when-idle to a command; gives what it makes of the options once the line is parsed.
    const auto addWhenIdle = [](CLI::App& command) {
        const auto seconds = std::make_shared<int>(0);
        CLI::Option* const option =
            command
                .add_flag("--when-idle{60}", *seconds,
                          "Wait up to SECONDS (60) for a moment in which no copy process runs, so "
                          "that no copied file goes unannounced; fail if there is none")
                ->check(CLI::Range(0, secondsInADay));
        return [option, seconds] {
            StopOptions options;
            if (option->count() > 0) {
                options.whenIdle = std::chrono::seconds(*seconds);
            }
            return options;
        };
    };
    CLI::App* const restart = app.add_subcommand(
        "restart", "The same as stop and then start, unless it is clear that the start would "
                   "fail; all words behind it and its --when-idle are the daemon's: "
                   "[-u UID:GID] [-d DETECTOR_ID:SOURCE:TARGET]...");
    restart->callback([&common, &status, options = addWhenIdle(*restart)] {
        status = runRestart(common, options());
    });

    CLI::App* const stop = app.add_subcommand("stop", "End the daemon and its copy processes");
    const auto timeout = std::make_shared<int>(static_cast<int>(StopOptions().timeout.count()));
    const auto stopOptions = addWhenIdle(*stop);
    stop->add_option("--timeout", *timeout, "Send SIGKILL to what has not heeded SIGTERM so long")
        ->check(CLI::Range(0, secondsInADay))
        ->capture_default_str();
    stop->callback([&common, &status, timeout, stopOptions] {
        StopOptions options = stopOptions();
        options.timeout = std::chrono::seconds(*timeout);
        status = runStop(common, options);
    });

    CLI::App* const ask =
        app.add_subcommand("status", "Tell whether the daemon runs (exit status 0: it does, 1: "
                                     "dead, 3: it does not, 4: unknown, 5: it seems to)");
    const auto asJson = std::make_shared<bool>(false);
    ask->add_flag("--json", *asJson, "As one JSON object");
    ask->callback([&common, &status, asJson] { status = runStatus(common, *asJson); });
}

void addCheck(CLI::App& app, int& status) {
    CLI::App* const command =
        app.add_subcommand("check", "Say what the daemon would do with a configuration, and every "
                                    "mistake in it or on this host");
    const auto options = std::make_shared<CheckOptions>();
    const auto user = std::make_shared<std::optional<std::string>>();
    const auto detectors = std::make_shared<std::vector<std::string>>();
    command->add_option("FILE", options->file,
                        "The configuration; by default the one that the daemon reads");
    command->add_option("-u,--user", *user, "The daemon's start option")
        ->type_name("UID:GID")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    command->add_option("-d,--detector", *detectors, "The daemon's start option")
        ->type_name("ID:SOURCE:TARGET")
        ->allow_extra_args(false);
    command->add_flag("--json", options->asJson, "Print JSON");
    command->add_flag("--no-network", options->noNetwork,
                      "Do not list the detectors' shares, each of which is listed once otherwise");
    command->footer("Exit status: 0 no mistakes, 1 warnings, 2 errors (also when the file can't be "
                    "read).");
    command->callback([options, user, detectors, &status] {
        std::vector<std::string>& words = options->startOptions;
        if (*user) {
            words = {"-u", **user};
        }
        for (const std::string& detector : *detectors) {
            words.insert(words.end(), {"-d", detector});
        }
        status = runCheck(*options);
    });
}

void addWatch(CLI::App& app, const CommonOptions& common, int& status) {
    constexpr double shortest = 0.2;
    constexpr double longest = 3600;
    const auto options = std::make_shared<WatchOptions>();
    CLI::App* const command = app.add_subcommand("watch", "Show what the daemon does");
    CLI::Option* const once =
        command->add_flag("--once", options->once, "One plain report instead of the live view");
    command->add_flag("--json", options->json,
                      "One JSON object; with --interval, one in a line each time");
    CLI::Option* const interval =
        command
            ->add_option("--interval", options->interval, "Seconds between two looks (0.2 to 3600)")
            ->type_name("SECONDS")
            ->capture_default_str()
            ->check(CLI::Validator(
                [](const std::string& text) {
                    const double seconds = std::strtod(text.c_str(), nullptr); // may be no number
                    return seconds >= shortest && seconds <= longest
                               ? std::string()
                               : "must be from 0.2 to 3600 seconds, not " + text;
                },
                ""))
            ->excludes(once);
    command->add_option("--config", options->configFile, "Read this configuration file")
        ->type_name("FILE");
    command->callback([options, interval, &common, &status] {
        options->inLines = options->json && interval->count() > 0;
        status = runWatch(common, *options);
    });
}

void addMetrics(CLI::App& app, const CommonOptions& common, int& status) {
    const auto options = std::make_shared<MetricsOptions>();
    CLI::App* const command =
        app.add_subcommand("metrics", "Give the daemon's figures to Prometheus");
    CLI::Option* const listen =
        command
            ->add_option("--listen", options->listen,
                         "Serve them at http://ADDRESS:PORT/metrics, until ended by SIGTERM")
            ->type_name("ADDRESS:PORT");
    CLI::Option* const write =
        command
            ->add_option("--write", options->write,
                         "Write them to this file each second, until ended by SIGTERM")
            ->type_name("FILE")
            ->excludes(listen);
    command
        ->add_option("--from", options->from,
                     "With --listen: serve what another one writes to this file")
        ->type_name("FILE")
        ->needs(listen);
    command->add_flag("--once", options->once, "Print them once")
        ->excludes(listen)
        ->excludes(write);
    command->add_option("--config", options->configFile, "Read this configuration file")
        ->type_name("FILE");
    command->callback([options, &common, &status] { status = runMetrics(common, *options); });
}

void addEvents(CLI::App& app, int& status) {
    const auto options = std::make_shared<EventsOptions>();
    CLI::App* const command = app.add_subcommand("events", "Tell what began and ended, and when");
    command->add_option("--since", options->since, "Only those since then: 2h, 3d, a date")
        ->type_name("TIME");
    command->add_flag("--ended", options->ended,
                      "Note how the daemon ended, by what systemd says (for ExecStopPost=)");
    command->callback([options, &status] { status = runEvents(*options); });
}

void addUnannounced(CLI::App& app, const CommonOptions& common, int& status) {
    const auto isToAnnounce = std::make_shared<bool>(false);
    CLI::App* const command = app.add_subcommand(
        "unannounced", "Name files that were copied and that the consumer may not know of");
    command->add_flag("--announce", *isToAnnounce,
                      "Write those that are there into the consumer's pipe");
    command->callback(
        [&common, &status, isToAnnounce] { status = runUnannounced(common, *isToAnnounce); });
}

void addLog(CLI::App& app, const CommonOptions& common, int& status) {
    const auto options = std::make_shared<LogOptions>();
    CLI::App* const command =
        app.add_subcommand("log", "Show the log since the daemon's start, readable");
    command->add_option("DETECTOR", options->detector, "Only this detector's lines");
    command->add_flag("-f,--follow", options->follow, "Go on with what comes");
    command->add_flag("--explain", options->explain, "Cause and cure below each line");
    command->callback([options, &common, &status] { status = runLog(common, *options); });
}

int run(int argc, char** argv) {
    CLI::App app("Control, check and watch the daemon skarn.", "skarnctl");
    app.set_version_flag("--version", std::string("skarnctl ") + Daemon::version);
    app.require_subcommand(1);

    CommonOptions common;
    common.daemonPath = daemonBeside();
    app.add_option("--daemon", common.daemonPath, "The daemon's executable")
        ->type_name("PATH")
        ->capture_default_str();

    int exitStatus = succeeded;
    addServiceCommands(app, common, exitStatus);
    addCheck(app, exitStatus);
    addWatch(app, common, exitStatus);
    addMetrics(app, common, exitStatus);
    addEvents(app, exitStatus);
    addUnannounced(app, common, exitStatus);
    addLog(app, common, exitStatus);

    const int end = firstStartOption(argc, argv);
    common.startOptions.assign(argv + end, argv + argc);

    try {
        app.parse(end, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success); // help or version, on standard output
    } catch (const CLI::ParseError& error) {
        complain(std::string(error.what()) + " (skarnctl --help tells more)");
        return badUsage;
    }
    return exitStatus;
}

} // namespace

} // namespace control

int main(int argc, char** argv) {
    try {
        return control::run(argc, argv);
    } catch (const std::exception& error) {
        control::complain(error.what());
        return control::failed;
    }
}
