// A server of one page over HTTP: what faces the network, in one thread, with a bound on
// everything.
#pragma once

#include "utilities/descriptors.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace control {

/// Answers GET /metrics with the page; anything else is refused. A client may send 8 KiB and take
/// five seconds; beyond a hundred at once the oldest one is dropped, so that clients that say
/// nothing hinder no other. Not for several threads.
class MetricsServer {
public:
    /// `listening` is a socket that listens and does not block.
    explicit MetricsServer(Descriptor listening) : socket(std::move(listening)) {}

    /// What is served from now on; nothing: that there is no page at present (status 503).
    void setPage(std::optional<std::string> text) { page = std::move(text); }

    /// Serves for so long.
    void serve(std::chrono::milliseconds duration);

private:
    using Clock = std::chrono::steady_clock;

    struct Client {
        Descriptor connection;
        Clock::time_point until;
        std::string request;
        std::string answer; // what is left of it; empty while the request is not complete
    };

    void accept();
    bool goesOn(Client& client) const;
    std::string answerTo(const std::string& request) const;

    Descriptor socket;
    std::optional<std::string> page;
    std::vector<Client> clients; // the oldest first
};

} // namespace control
