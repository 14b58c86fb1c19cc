// A server of one page over HTTP: what faces the network, in one thread, with a bound on
// everything.
#pragma once

#include "utilities/descriptors.h"

#include <functional>
#include <optional>
#include <string>

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

/// Gives the page of now; nothing if there is none.
using Look = std::function<std::optional<std::string>()>;

/// Answers GET /metrics at a socket that listens and does not block, for ever: with the page that
/// `look` gave, which is asked each second, or with status 503. Anything else is refused. A client
/// may send 8 KiB and take five seconds; beyond a hundred at once the oldest one is dropped, so
/// that clients that say nothing hinder no other.
[[noreturn]] void serveMetrics(const Descriptor& socket, const Look& look);

} // namespace control
