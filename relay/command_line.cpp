// The command line of skarn-relay: it runs the relay, or asks one that runs over its Unix socket.
#include "relay/command_line.h"

#include "daemon/daemon.h"
#include "relay/json.h"
#include "relay/messages.h"
#include "relay/settings.h"
#include "utilities/descriptors.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <exception>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <httplib.h>
#include <sys/socket.h>
#include <unistd.h>

namespace relay {

namespace {

constexpr int failed = 1;
constexpr int badUsage = 2;
// Of a run that was waited for.
constexpr int incomplete = 3;
constexpr int timeIsUp = 4;
constexpr int untold = 5;       // it has ended, and nothing tells whether it is complete
constexpr int longestWait = 60; // seconds that one request may take
constexpr auto pause = std::chrono::milliseconds(500);
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
        CLI::App* const run = add(app, "run", "Take records in and deliver them");
        run->callback([this, run] {
            if (!run->get_subcommands().empty()) {
                return;
            }
            const auto settings = readSettings();
            exitStatus = settings ? runRelay(*settings, afterCommit) : badUsage;
        });
        addStatus();
        addRecords();
        addSubscribers();
        addDeadLetters();
        addRuns(*run);
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

    CLI::App* addOfRun(CLI::App& to, const char* command, const char* what) {
        CLI::App* const added = add(to, command, what);
        added->add_option("RUN", name, "The run's name")->required();
        return added;
    }

    void addTimeout(CLI::App& command) {
        command.add_option("--timeout", timeout, "Wait for so many seconds at most")
            ->check(CLI::NonNegativeNumber);
    }

    void addRuns(CLI::App& run) {
        CLI::App* const end = addOfRun(run, "end", "Say that a run has ended");
        CLI::App* const wait =
            addOfRun(app, "wait", "Wait until a run has ended, or has what is expected of it");
        CLI::App* const manifest =
            addOfRun(app, "manifest", "Print a line of JSON for each file of a run");
        CLI::App* const list = add(app, "runs", "List the latest runs, or show one as JSON");
        for (CLI::App* const each : {end, wait}) {
            addToQuery(*each, "--expect", "expect", "It should have so many files");
        }
        addTimeout(*wait);
        addTimeout(*manifest);
        list->add_option("RUN", name, "The run's name");
        list->add_flag("--json", isJson, "The list as JSON, a line for each");
        end->callback([this] {
            query.emplace("name", name);
            tell("POST", "runs/end");
        });
        list->callback([this] {
            query.emplace(name.empty() ? "format" : "name", !name.empty() ? name
                                                            : isJson      ? "json"
                                                                          : "text");
            tell("GET", "runs");
        });
        wait->callback([this] { awaitRun(); });
        manifest->callback([this] { awaitManifest(); });
    }

    /// Asks again and again until `isAnswer` says that this is one, or the time is up.
    template<class IsAnswer>
    httplib::Response askUntil(const std::string& path, IsAnswer isAnswer) {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point begin = Clock::now();
        query.emplace("name", name);
        for (;;) {
            const std::chrono::duration<double> passed = Clock::now() - begin;
            const double left = timeout.value_or(passed.count() + longestWait) - passed.count();
            query.erase("wait");
            query.emplace("wait", std::to_string(std::clamp(static_cast<int>(std::ceil(left)), 0,
                                                            longestWait)));
            httplib::Response answer = ask("GET", path);
            if (answer.status <= 0 || isAnswer(answer) || left <= 0) {
                return answer;
            }
            if (answer.status != 200) {
                std::this_thread::sleep_for(pause);
            }
        }
    }

    void awaitRun() {
        Json run;
        bool isDone = false;
        const httplib::Response answer = askUntil("runs", [&](const httplib::Response& answered) {
            run = Json::parse(answered.body, nullptr, false);
            isDone = answered.status == 200 && run.is_object() &&
                     (run["state"] == "ended" || run["complete"] == true);
            return isDone || (answered.status != 200 && answered.status != 404);
        });
        print(answer);
        if (answer.status == 200 || answer.status == 404) {
            exitStatus = !isDone                     ? timeIsUp
                         : run["complete"].is_null() ? untold
                         : run["complete"] == true   ? exitStatus
                                                     : incomplete;
        }
    }

    void awaitManifest() {
        const httplib::Response answer =
            askUntil("runs/manifest",
                     [](const httplib::Response& answered) { return answered.status != 503; });
        print(answer);
        exitStatus = answer.status == 503 ? timeIsUp : exitStatus;
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
        httplib::Response answer = ask(method, path);
        print(answer);
        return answer;
    }

    void print(const httplib::Response& answer) {
        if (answer.status >= 300) {
            warn(problemIn(answer));
        } else if (answer.status > 0 && writeAll(STDOUT_FILENO, answer.body)) {
            exitStatus = 0;
        }
    }

    /// Asks the relay that runs. Without an answer, which is told, the status is none of HTTP's;
    /// that for exit is one of failure until the answer is printed.
    httplib::Response ask(const std::string& method, const std::string& path) {
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
        return *result;
    }

    CLI::App app{"Keep skarn's announcements and deliver them.", "skarn-relay"};
    const std::function<void()> afterCommit;
    int exitStatus = 0;
    std::string configuration; // a file that was named, or empty
    httplib::Params query;
    bool isJson = false;
    bool isFollowing = false;
    std::string name;              // of a subscriber, or of a run
    std::optional<double> timeout; // seconds
    std::string retried;
    std::string dropped;
};

} // namespace

int runCommandLine(int argc, char** argv, std::function<void()> afterCommit) {
    return CommandLine(std::move(afterCommit)).parse(argc, argv);
}

} // namespace relay
