// One run of a subscriber's program.
#pragma once

#include "relay/record.h"
#include "relay/settings.h"

#include <atomic>
#include <string>
#include <vector>

namespace relay {

/// Runs the program for these records and waits for its end, or for its time limit, or until it is
/// told to end; in both cases it is ended with all that it has started. Returns what went wrong in
/// one sentence, with the end of what it said on standard error; empty if its exit status was 0.
/// The program has no descriptor of the relay's, and dies with it.
std::string runCommand(const CommandSettings& command, const std::vector<Record>& records,
                       const std::atomic<bool>& isEnding);

} // namespace relay
