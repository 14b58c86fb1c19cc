// skarnctl: the command line, and the way to the subcommand that it names.
#include "control/command.h"
#include "control/service/service_commands.h"
#include "daemon/daemon.h"
#include "daemon/global.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <system_error>

namespace {

/// The daemon that is installed beside this program.
std::string daemonBeside() {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    return (self.parent_path() / GLOBAL::progName).string();
}

int run(int argc, char** argv) {
    CLI::App app("Control, check and watch the daemon skarn.", "skarnctl");
    app.set_version_flag("--version", std::string("skarnctl ") + Daemon::version);
    app.require_subcommand(1);

    control::CommonOptions common;
    common.daemonPath = daemonBeside();
    app.add_option("--daemon", common.daemonPath, "The daemon's executable")
        ->type_name("PATH")
        ->capture_default_str();

    int exitStatus = control::succeeded;
    control::addServiceCommands(app, common, exitStatus);
    control::addCheckCommand(app, exitStatus);
    control::addWatchCommand(app, common, exitStatus);
    control::addMetricsCommand(app, common, exitStatus);
    control::addEventsCommand(app, exitStatus);
    control::addUnannouncedCommand(app, common, exitStatus);
    control::addLogCommand(app, common, exitStatus);

    const int end = control::firstStartOption(argc, argv);
    common.startOptions.assign(argv + end, argv + argc);

    try {
        app.parse(end, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success); // help or version, on standard output
    } catch (const CLI::ParseError& error) {
        control::complain(std::string(error.what()) + " (skarnctl --help tells more)");
        return control::badUsage;
    }
    return exitStatus;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        control::complain(error.what());
        return control::failed;
    }
}
