// The command line of skarn-relay, and the way to the command that it names.
#include "relay/command_line.h"

#include "daemon/daemon.h"
#include "relay/asking.h"
#include "relay/messages.h"
#include "relay/settings.h"
#include "utilities/descriptors.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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

/// What the commands have in common.
struct Common {
    std::string configuration; // a file that was named, or empty
    int exitStatus = 0;
};

/// Asks the relay that runs, and prints its answer. The last thing that a command does.
Answer tell(Common& common, const std::string& method, const std::string& path,
            const Query& query) {
    const auto settings = settingsOf(common.configuration);
    if (!settings) {
        common.exitStatus = badUsage;
        return {};
    }
    Answer answer = ask(settings->http.socket, method, path, query);
    if (!answer.problem.empty()) {
        warn(answer.problem);
        common.exitStatus = failed;
    } else if (!writeAll(STDOUT_FILENO, answer.text)) {
        common.exitStatus = failed;
    }
    return answer;
}

CLI::App* addCommand(CLI::App& app, Common& common, const std::string& name,
                     const std::string& what) {
    CLI::App* const command = app.add_subcommand(name, what);
    command->add_option("--config", common.configuration, "Read this configuration file")
        ->type_name("FILE");
    return command;
}

/// Options that say which records are meant; their values go into the query.
void addFilter(CLI::App& command, Query& query) {
    for (const auto& [key, what] :
         {std::pair("detector", "Only those of this detector; may be given again"),
          std::pair("path", "Only those whose path matches this pattern; may be given again"),
          std::pair("kind", "Only this kind: file (the default), usershift, run or other")}) {
        command.add_option_function<std::vector<std::string>>(
            std::string("--") + key,
            [key = std::string(key), &query](const auto& values) {
                for (const std::string& each : values) {
                    query.emplace_back(key, each);
                }
            },
            what);
    }
}

/// An option whose value goes into the query under that key.
void addQueryOption(CLI::App& command, const std::string& option, const std::string& key,
                    Query& query, const std::string& what) {
    command.add_option_function<std::string>(
        option, [key, &query](const std::string& value) { query.emplace_back(key, value); }, what);
}

void addStatus(CLI::App& app, Common& common) {
    CLI::App* const command = addCommand(app, common, "status", "Show how the relay fares");
    const auto isJson = std::make_shared<bool>(false);
    command->add_flag("--json", *isJson, "As JSON");
    command->callback([&common, isJson] {
        tell(common, "GET", "status", {{"format", *isJson ? "json" : "text"}});
    });
}

void addRecords(CLI::App& app, Common& common) {
    CLI::App* const command =
        addCommand(app, common, "records", "Print records of the log, a line of JSON for each");
    const auto query = std::make_shared<Query>();
    const auto isFollowing = std::make_shared<bool>(false);
    addFilter(*command, *query);
    addQueryOption(*command, "--since", "since", *query,
                   "From there on: oldest, now, a time, or a sequence number");
    command->add_flag("--follow", *isFollowing, "Go on with those that come");
    command->callback([&common, query, isFollowing] {
        query->emplace_back("limit", "10000");
        Query next = *query;
        std::int64_t seenTo = -1;
        for (;;) {
            const Answer answer = tell(common, "GET", "records", next);
            const bool isEnd = answer.text.empty() && answer.seenTo == seenTo;
            if (common.exitStatus != 0 || (isEnd && !*isFollowing)) {
                return;
            }
            seenTo = answer.seenTo;
            next = *query;
            next.emplace_back("after", std::to_string(seenTo));
            next.emplace_back("wait", *isFollowing ? "60" : "0");
        }
    });
}

void addSubscribers(CLI::App& app, Common& common) {
    CLI::App* const command = app.add_subcommand("subscribers", "Add, reset or remove subscribers");
    command->require_subcommand(1);
    struct Action {
        const char* name;
        const char* what;
        const char* method;
        const char* suffix;
    };
    for (const Action& action :
         {Action{"add", "Add one that fetches over HTTP", "PUT", ""},
          Action{"reset", "Put one elsewhere, back or forward", "POST", "/reset"},
          Action{"remove", "Remove one that is not configured, with its dead letters", "DELETE",
                 ""}}) {
        CLI::App* const one = addCommand(*command, common, action.name, action.what);
        const auto name = std::make_shared<std::string>();
        const auto query = std::make_shared<Query>();
        one->add_option("NAME", *name, "The subscriber's name")->required();
        if (action.method != std::string("DELETE")) {
            addQueryOption(*one, "--start", "start", *query,
                           "Where it begins: oldest, now, a time, or a sequence number");
        }
        if (action.method == std::string("PUT")) {
            addFilter(*one, *query);
            addQueryOption(*one, "--max-backlog", "max_backlog", *query,
                           "Keep so many records for it at most");
        }
        one->callback([&common, action, name, query] {
            tell(common, action.method, "subscribers/" + *name + action.suffix, *query);
        });
    }
}

void addDeadLetters(CLI::App& app, Common& common) {
    CLI::App* const command = addCommand(
        app, common, "dead-letters", "List the records that a command did not take, or treat them");
    const auto name = std::make_shared<std::string>();
    const auto retried = std::make_shared<std::string>();
    const auto dropped = std::make_shared<std::string>();
    command->add_option("NAME", *name, "The subscriber's name")->required();
    CLI::Option* const retry =
        command->add_option("--retry", *retried, "Try this one again, or \"all\"");
    command->add_option("--drop", *dropped, "Forget this one, or \"all\"")->excludes(retry);
    command->callback([&common, name, retried, dropped] {
        const std::string path = "subscribers/" + *name + "/dead-letters";
        if (!retried->empty()) {
            tell(common, "POST", path + "/retry", {{"seq", *retried}});
        } else if (!dropped->empty()) {
            tell(common, "POST", path + "/drop", {{"seq", *dropped}});
        } else {
            tell(common, "GET", path, {});
        }
    });
}

void addCheck(CLI::App& app, Common& common) {
    CLI::App* const command =
        app.add_subcommand("check", "Name every mistake in a configuration file");
    command->add_option("FILE", common.configuration, "The file")->type_name("FILE");
    command->callback([&common] {
        const auto settings = settingsOf(common.configuration);
        common.exitStatus = settings ? 0 : failed;
        if (settings) {
            writeUnchecked(STDOUT_FILENO, "no mistakes; " +
                                              std::to_string(settings->subscribers.size()) +
                                              " subscribers\n");
        }
    });
}

} // namespace

int runCommandLine(int argc, char** argv, const Circumstances& circumstances) {
    CLI::App app("Keep skarn's announcements and deliver them.", "skarn-relay");
    app.set_version_flag("--version", std::string("skarn-relay ") + Daemon::version);
    app.require_subcommand(1);
    Common common;
    CLI::App* const run = addCommand(app, common, "run", "Take records in and deliver them");
    run->callback([&common, &circumstances] {
        const auto settings = settingsOf(common.configuration);
        common.exitStatus = settings ? runRelay(*settings, circumstances) : badUsage;
    });
    addStatus(app, common);
    addRecords(app, common);
    addSubscribers(app, common);
    addDeadLetters(app, common);
    addCheck(app, common);
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
    return common.exitStatus;
}

} // namespace relay
