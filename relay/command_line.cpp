// The command line of skarn-relay: it runs the relay, or asks one that runs over its Unix socket.
#include "relay/command_line.h"

#include "daemon/daemon.h"
#include "relay/json.h"
#include "relay/messages.h"
#include "relay/settings.h"
#include "utilities/descriptors.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <exception>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <httplib.h>
#include <sys/socket.h>
#include <unistd.h>

namespace relay {

namespace {

constexpr int failed = 1;
constexpr int badUsage = 2;
constexpr int longestAnswer = 90; // seconds: some wait for a minute

/// The relay's own sentence on what it refuses.
std::string problemIn(const httplib::Response& response) {
    const Json object = Json::parse(response.body, nullptr, false);
    const bool isTold =
        object.is_object() && object.contains("error") && object["error"].is_string();
    return isTold ? shown(object["error"].get<std::string>())
                  : "the relay answered with status " + std::to_string(response.status);
}

/// The commands and their options; what these say is kept until the command is done.
class CommandLine {
public:
    explicit CommandLine(std::function<void()> hook) : afterCommit(std::move(hook)) {
        app.set_version_flag("--version", std::string("skarn-relay ") + Daemon::version);
        app.require_subcommand(1);
        add(app, "run", "Take records in and deliver them")->callback([this] {
            const auto settings = readSettings();
            exitStatus = settings ? runRelay(*settings, afterCommit) : badUsage;
        });
        addStatus();
        addRecords();
        addSubscribers();
        addDeadLetters();
        addCheck();
    }

    int parse(int argc, char** argv) {
        try {
            app.parse(argc, argv);
            return exitStatus;
        } catch (const CLI::Success& success) {
            return app.exit(success); // help or version, on standard output
        } catch (const CLI::ParseError& error) {
            warn(std::string(error.what()) + " (skarn-relay --help tells more)");
            return badUsage;
        } catch (const std::exception& error) {
            warn(error.what());
            return failed;
        }
    }

private:
    CLI::App* add(CLI::App& to, const std::string& command, const std::string& what) {
        CLI::App* const added = to.add_subcommand(command, what);
        added->add_option("--config", configuration, "Read this configuration file")
            ->type_name("FILE");
        return added;
    }

    /// An option that may be given again; its values go into the query under that key.
    void addToQuery(CLI::App& command, const std::string& option, const std::string& key,
                    const std::string& what) {
        const auto add = [this, key](const std::vector<std::string>& values) {
            for (const std::string& each : values) {
                query.emplace(key, each);
            }
        };
        command.add_option_function<std::vector<std::string>>(option, add, what)
            ->allow_extra_args(false);
    }

    void addFilter(CLI::App& command) {
        addToQuery(command, "--detector", "detector",
                   "Only those of this detector; may be given again");
        addToQuery(command, "--path", "path",
                   "Only those whose path matches this pattern; may be given again");
        addToQuery(command, "--kind", "kind",
                   "Only this kind: file (the default), usershift, run or other");
    }

    void addStatus() {
        CLI::App* const command = add(app, "status", "Show how the relay fares");
        command->add_flag("--json", isJson, "As JSON");
        command->callback([this] {
            query.emplace("format", isJson ? "json" : "text");
            tell("GET", "status");
        });
    }

    void addRecords() {
        CLI::App* const command =
            add(app, "records", "Print records of the log, a line of JSON for each");
        addFilter(*command);
        addToQuery(*command, "--since", "since",
                   "From there on: oldest, now, a time, or a sequence number");
        command->add_flag("--follow", isFollowing, "Go on with those that come");
        command->callback([this] {
            query.emplace("limit", "10000");
            std::string seenTo;
            for (;;) {
                const httplib::Response answer = tell("GET", "records");
                const std::string behind = answer.get_header_value("Skarn-Seen-To");
                const bool isEnd = answer.body.empty() && behind == seenTo;
                if (exitStatus != 0 || (isEnd && !isFollowing)) {
                    return;
                }
                seenTo = behind;
                query.erase("after");
                query.erase("wait");
                query.emplace("after", seenTo);
                query.emplace("wait", isFollowing ? "60" : "0");
            }
        });
    }

    void addSubscribers() {
        CLI::App* const command =
            app.add_subcommand("subscribers", "Add, reset or remove subscribers");
        command->require_subcommand(1);
        const auto addOne = [this, command](const char* verb, const char* what, const char* method,
                                            const char* suffix) {
            CLI::App* const one = add(*command, verb, what);
            one->add_option("NAME", name, "The subscriber's name")->required();
            one->callback([this, method, suffix] { tell(method, "subscribers/" + name + suffix); });
            return one;
        };
        CLI::App* const added = addOne("add", "Add one that fetches over HTTP", "PUT", "");
        CLI::App* const reset =
            addOne("reset", "Put one elsewhere, back or forward", "POST", "/reset");
        addOne("remove", "Remove one that is not configured, with its dead letters", "DELETE", "");
        for (CLI::App* const each : {added, reset}) {
            addToQuery(*each, "--start", "start",
                       "Where it begins: oldest, now, a time, or a sequence number");
        }
        addFilter(*added);
        addToQuery(*added, "--max-backlog", "max_backlog", "Keep so many records for it at most");
    }

    void addDeadLetters() {
        CLI::App* const command =
            add(app, "dead-letters", "List the records that a command did not take, or treat them");
        command->add_option("NAME", name, "The subscriber's name")->required();
        CLI::Option* const retry =
            command->add_option("--retry", retried, "Try this one again, or \"all\"");
        command->add_option("--drop", dropped, "Forget this one, or \"all\"")->excludes(retry);
        command->callback([this] {
            const std::string path = "subscribers/" + name + "/dead-letters";
            if (retried.empty() && dropped.empty()) {
                tell("GET", path);
                return;
            }
            query.emplace("seq", retried + dropped); // one of them is empty
            tell("POST", path + (dropped.empty() ? "/retry" : "/drop"));
        });
    }

    void addCheck() {
        CLI::App* const command =
            app.add_subcommand("check", "Name every mistake in a configuration file");
        command->add_option("FILE", configuration, "The file")->type_name("FILE");
        command->callback([this] {
            const auto settings = readSettings();
            exitStatus = settings ? 0 : failed;
            if (settings) {
                writeUnchecked(STDOUT_FILENO, "no mistakes; " +
                                                  std::to_string(settings->subscribers.size()) +
                                                  " subscribers\n");
            }
        });
    }

    /// The settings of the file; those of the usual one, or the defaults without it, if none is
    /// named. Tells each mistake. Nothing if there is one.
    std::optional<Settings> readSettings() const {
        const std::string file = configuration.empty() ? usualSettingsFile : configuration;
        if (configuration.empty() && ::access(file.c_str(), F_OK) != 0 && errno == ENOENT) {
            return Settings();
        }
        LoadedSettings loaded = loadSettings(file);
        if (!loaded.mistakes.empty()) {
            writeUnchecked(STDERR_FILENO, mistakesText(file, loaded.mistakes));
            return std::nullopt;
        }
        return std::move(loaded.settings);
    }

    /// Asks the relay that runs, and prints its answer or what is wrong. The path is one behind
    /// "/v1/".
    httplib::Response tell(const std::string& method, const std::string& path) {
        const auto settings = readSettings();
        if (!settings) {
            exitStatus = badUsage;
            return {};
        }
        const std::string& socket = settings->http.socket;
        httplib::Client client(socket, 80);
        client.set_address_family(AF_UNIX);
        client.set_read_timeout(longestAnswer);
        httplib::Request request;
        request.method = method;
        request.path = httplib::append_query_params("/v1/" + path, query);
        request.set_header("Host", "relay");
        const httplib::Result result = client.send(request);
        exitStatus = failed;
        if (!result) {
            warn("no relay answers at " + socket + ": " + httplib::to_string(result.error()));
            return {};
        }
        if (result->status >= 300) {
            warn(problemIn(*result));
        } else if (writeAll(STDOUT_FILENO, result->body)) {
            exitStatus = 0;
        }
        return *result;
    }

    CLI::App app{"Keep skarn's announcements and deliver them.", "skarn-relay"};
    const std::function<void()> afterCommit;
    int exitStatus = 0;
    std::string configuration; // a file that was named, or empty
    httplib::Params query;
    bool isJson = false;
    bool isFollowing = false;
    std::string name; // of a subscriber
    std::string retried;
    std::string dropped;
};

} // namespace

int runCommandLine(int argc, char** argv, std::function<void()> afterCommit) {
    return CommandLine(std::move(afterCommit)).parse(argc, argv);
}

} // namespace relay
