// What the relay, where one stands between the pipe and its consumers, tells of itself.
#include "control/observe/relay_look.h"

#include "utilities/descriptors.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace control {

namespace {

/// More than the status of thousands of subscribers.
constexpr std::size_t longestAnswer = 4UL * 1024 * 1024;

constexpr std::string_view question = "GET /v1/status HTTP/1.0\r\nHost: relay\r\n\r\n";

} // namespace

std::optional<RelaySnapshot> parseRelayAnswer(std::string_view answer) {
    const std::size_t head = answer.find("\r\n\r\n");
    if (head == std::string_view::npos ||
        answer.substr(0, answer.find('\r')).find(" 200") == std::string_view::npos) {
        return std::nullopt;
    }
    try {
        const nlohmann::json status = nlohmann::json::parse(answer.substr(head));
        RelaySnapshot relay;
        status.at("records").get_to(relay.records);
        status.at("problem").get_to(relay.problem);
        for (const nlohmann::json& each : status.at("subscribers")) {
            relay.subscribers.push_back(
                {each.at("name"), each.at("lag"), each.at("lag_seconds"), each.at("problem")});
        }
        return relay;
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

std::optional<RelaySnapshot> lookAtRelay(const std::string& socket) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const Descriptor connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.size() >= sizeof address.sun_path) {
        return std::nullopt;
    }
    socket.copy(address.sun_path, socket.size());
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
            0 ||
        send(connection.get(), question.data(), question.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(question.size())) {
        return std::nullopt;
    }
    std::string answer;
    std::array<char, 65536> part{};
    for (ssize_t got = 1; got > 0 && answer.size() < longestAnswer;) {
        got = recv(connection.get(), part.data(), part.size(), 0);
        answer.append(part.data(), static_cast<std::size_t>(std::max<ssize_t>(0, got)));
    }
    return parseRelayAnswer(answer);
}

} // namespace control
