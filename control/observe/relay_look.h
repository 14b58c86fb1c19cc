// What the relay, where one stands between the pipe and its consumers, tells of itself.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace control {

struct RelaySubscriber {
    std::string name;
    std::uint64_t lag = 0; // records that it has yet to acknowledge
    double lagSeconds = 0; // age of the oldest of these
    std::string problem;   // why it gets none; empty if it does
};

struct RelaySnapshot {
    std::uint64_t records = 0; // in its log since it was started
    std::string problem;       // why it takes nothing out of the pipe; empty if it does
    std::vector<RelaySubscriber> subscribers;
};

/// Where the relay listens unless its configuration says otherwise.
constexpr const char* relaySocket = "/run/skarn-relay/socket";

/// Asks the relay that listens at this Unix socket. Nothing if none does, or what it says is no
/// status. May wait as long as it does not answer (see Aside).
std::optional<RelaySnapshot> lookAtRelay(const std::string& socket);

/// Reads an answer to that question, with its head. Nothing if it is none.
std::optional<RelaySnapshot> parseRelayAnswer(std::string_view answer);

} // namespace control
