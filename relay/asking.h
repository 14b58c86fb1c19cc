// Asking a relay that runs, over its Unix socket.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace relay {

using Query = std::vector<std::pair<std::string, std::string>>;

/// What it answered.
struct Answer {
    int status = 0; // of HTTP; 0: there was no answer
    std::string text;
    std::string problem;     // one sentence; empty if the status is one of success
    std::int64_t seenTo = 0; // of records: behind which one to ask on
};

/// One request to the relay at the socket: a method of HTTP, a path behind "/v1/" and its query.
Answer ask(const std::string& socket, const std::string& method, const std::string& path,
           const Query& query);

} // namespace relay
