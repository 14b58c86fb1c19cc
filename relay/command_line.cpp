// The command line of skarn-relay, and the way to the command that it names.
#include "relay/command_line.h"

#include "relay/messages.h"
#include "relay/settings_file.h"
#include "utilities/descriptors.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include <unistd.h>

namespace relay {

namespace {

constexpr int failed = 1;
constexpr int badUsage = 2;

/// The settings of a file; those of the usual one, or the defaults without it, if none is named.
/// Tells each mistake. Nothing if there is one.
std::optional<Settings> settingsOf(const std::string& named) {
    const std::string file = named.empty() ? usualSettingsFile : named;
    if (named.empty() && ::access(file.c_str(), F_OK) != 0 && errno == ENOENT) {
        return Settings();
    }
    LoadedSettings loaded = loadSettings(file);
    if (!loaded.mistakes.empty()) {
        writeUnchecked(STDERR_FILENO, mistakesText(file, loaded.mistakes));
        return std::nullopt;
    }
    return std::move(loaded.settings);
}

} // namespace

int runCommandLine(int argc, char** argv, const Circumstances& circumstances) {
    CLI::App app("Keep skarn's announcements and deliver them.", "skarn-relay");
    app.require_subcommand(1);
    int exitStatus = 0;

    CLI::App* const run = app.add_subcommand("run", "Take records in and deliver them");
    std::string configuration;
    run->add_option("--config", configuration, "Read this configuration file")->type_name("FILE");
    run->callback([&] {
        const auto settings = settingsOf(configuration);
        exitStatus = settings ? runRelay(*settings, circumstances) : badUsage;
    });

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success); // help or version, on standard output
    } catch (const CLI::ParseError& error) {
        warn(std::string(error.what()) + " (skarn-relay --help tells more)");
        return badUsage;
    } catch (const std::exception& error) {
        warn(error.what());
        return failed;
    }
    return exitStatus;
}

} // namespace relay
