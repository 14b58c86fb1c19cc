// A server of one page over HTTP: what faces the network, in one thread, with a bound on
// everything.
#pragma once

#include "utilities/descriptors.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace control {

/// A socket that listens at a text such as "127.0.0.1:9751" or "[::1]:9751". Names are refused, as
/// is an address left out: what is to be reached from everywhere is to be said (0.0.0.0 or [::]).
/// Port 0 too: nobody would know it.
struct Listening {
    Descriptor socket;    // none if that can't be
    std::string problem;  // then one sentence that says why
    bool isWrong = false; // then: the text is no such address
};
Listening listenAt(const std::string& text);

/// Answers GET /metrics with the page; anything else is refused. A client may send 8 KiB and take
/// five seconds; beyond a hundred at once the oldest one is dropped, so that clients that say
/// nothing hinder no other. Not for several threads.
class MetricsServer {
public:
    /// `listening` is a socket that listens and does not block.
    explicit MetricsServer(Descriptor listening) : socket(std::move(listening)) {}

    /// Serves this page for so long; nothing: that there is none at present (status 503).
    void serve(std::optional<std::string> text, std::chrono::milliseconds duration);

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
