// skarnctl events: when did what begin and end.
#pragma once

#include <optional>
#include <string>

namespace control {

/// The moment that a text names: "90 s", "30min", "2h" or "3d" before `now`, or local time as
/// "2026-11-22", "2026-11-22 03:12" and with seconds. Nothing if it names none.
std::optional<double> parseMoment(const std::string& text, double now);

} // namespace control
