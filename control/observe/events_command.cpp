// skarnctl events: when did what begin and end.
#include "control/command.h"
#include "control/display_text.h"
#include "control/event_journal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <unistd.h>

namespace control {

namespace {

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

/// What systemd tells the command that it runs after the daemon's end.
int noteEnd() {
    const std::string status = variable("EXIT_STATUS");
    const bool bySignal = variable("EXIT_CODE") == "killed" || variable("EXIT_CODE") == "dumped";
    const std::string problem =
        noteEvents({std::string(daemonEnded) +
                    (bySignal ? " by SIG" + status : " with status " + status) + ", says systemd"});
    if (problem.empty()) {
        return succeeded;
    }
    complain(problem);
    return failed;
}

int show(const std::string& since) {
    const auto now = static_cast<double>(std::time(nullptr));
    const std::optional<double> begin = since.empty() ? 0 : parseMoment(since, now);
    if (!begin) {
        complain("--since takes a time such as 90s, 30min, 2h, 3d or \"2026-11-22 03:12\", not " +
                 since);
        return badUsage;
    }
    if (access(eventJournalPath().c_str(), R_OK) != 0) {
        complain("no events: " + eventJournalPath() + ": " + std::strerror(errno) +
                 "; skarnctl metrics, such as the service skarn-look, notes them");
        return failed;
    }
    std::string text;
    for (const Event& event : readEvents()) {
        if (event.time >= *begin) {
            text += localTime(event.time) + "  " + displayable(event.text, false) + "\n";
        }
    }
    return print(text).value_or(succeeded);
}

} // namespace

int runEvents(const EventsOptions& options) {
    return options.ended ? noteEnd() : show(options.since);
}

} // namespace control
