// When did what begin and end: a journal of bounded size with one line for each change. The
// daemon's log has no times.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace control {

struct Event {
    double time = 0; // seconds since 1970
    std::string text;
};

/// How often the daemon ended without being told to, as far as the event journal knows.
struct Deaths {
    int lastDay = 0;
    std::optional<double> last; // seconds since 1970
    std::string how;            // "SIGPIPE"; empty if it is not known
};

/// "/var/log/skarn/events": lines "2026-11-22T03:12:05+0100 TEXT".
std::string eventJournalPath();

/// How its lines begin when the daemon is told to end, and when it has ended.
constexpr std::string_view toldToEnd = "the daemon is told to end";
constexpr std::string_view daemonEnded = "the daemon ended";

/// Adds a line for each text, with the present time; what could steer a terminal as \ooo. When the
/// journal has grown to a megabyte its older half goes. Returns why it could not, or nothing.
std::string noteEvents(const std::vector<std::string>& texts);

/// All that it has, oldest first.
std::vector<Event> readEvents();

/// How often the daemon ended in the last day without being told to.
Deaths deathsIn(const std::vector<Event>& events, double now);

/// The moment that a text names: "90 s", "30min", "2h" or "3d" before `now`, or local time as
/// "2026-11-22", "2026-11-22 03:12" and with seconds. Nothing if it names none.
std::optional<double> parseMoment(const std::string& text, double now);

} // namespace control
