// What is told of the daemon to people and to scripts.
#include "control/service/status.h"

#include "control/display_text.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace control {

using nlohmann::json;

NLOHMANN_JSON_SERIALIZE_ENUM(PidFile::State, {{PidFile::State::absent, "absent"},
                                              {PidFile::State::unreadable, "unreadable"},
                                              {PidFile::State::damaged, "damaged"},
                                              {PidFile::State::whole, "whole"}})

namespace {

/// Times as whole seconds: their fractions are not certain.
json wholeSeconds(double time) {
    return static_cast<std::int64_t>(std::floor(time));
}

/// A word as a shell would want it, so that where one ends can be seen.
std::string shellWord(const std::string& word) {
    if (!word.empty() && word.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                                                "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                                "0123456789_-+=:,./@%") == std::string::npos) {
        return word;
    }
    std::string quoted = "'";
    for (const char character : word) {
        quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return quoted + "'";
}

} // namespace

int statusCode(DaemonProcesses::State state) {
    switch (state) {
    case DaemonProcesses::State::running:
        return 0;
    case DaemonProcesses::State::dead:
        return 1;
    case DaemonProcesses::State::notRunning:
        return 3;
    case DaemonProcesses::State::seemsToRun:
        return 5;
    case DaemonProcesses::State::unknown:
        break;
    }
    return 4;
}

std::string statusText(const DaemonProcesses& found) {
    std::string shown = displayable(found.text, false);
    shown += found.startOptions.empty() ? "" : "\nstart options:";
    for (const std::string& word : found.startOptions) {
        shown += " " + displayable(shellWord(word), false);
    }
    return shown + "\n";
}

std::string statusJson(const DaemonProcesses& found, const std::optional<int>& processLimit) {
    json copies = json::array();
    for (const Process& process : found.copyProcesses) {
        copies.push_back({{"pid", process.pid}, {"since", wholeSeconds(startTime(process))}});
    }
    json unvouched = json::array();
    for (const Process& process : found.unvouched) {
        unvouched.push_back(process.pid);
    }
    const bool runs = found.pid() != 0;
    const json status = {
        {"state", nameOf(found.state)},
        {"exit_status", statusCode(found.state)},
        {"text", found.text},
        {"pid", runs ? json(found.pid()) : json()},
        {"since", found.upSince ? wholeSeconds(*found.upSince) : json()},
        {"start_options", found.startOptions},
        {"copy_processes", copies},
        {"copy_process_limit", runs && processLimit ? json(*processLimit) : json()},
        {"unvouched_processes", unvouched},
        {"pid_file",
         {{"path", pidFilePath()},
          {"state", found.pidFile.state},
          {"problem", found.pidFile.problem}}},
    };
    // Start options may hold any byte; what is no UTF-8 is shown as U+FFFD, and the rest as ASCII,
    // so that nothing steers a terminal.
    return status.dump(2, ' ', true, json::error_handler_t::replace) + "\n";
}

} // namespace control
