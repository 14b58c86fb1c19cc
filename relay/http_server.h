// Serving subscribers over HTTP: their records, acknowledgements, live streams, and the status.
//
// What can be asked for is documented in docs/relay.md.
#pragma once

#include "relay/record_log.h"
#include "relay/settings.h"
#include "relay/status.h"
#include "relay/subscribers.h"
#include "relay/view.h"

#include <functional>
#include <memory>

namespace relay {

/// What is answered from; all of it outlives the server.
struct Served {
    RecordLog& log;
    Subscribers& subscribers;
    std::function<Status()> status;
    View& view;
    Runs* runs; // nothing if there are none
};

/// Listens on the Unix socket and, if that is configured, at an address, on threads of its own,
/// until what it returns is destroyed. Throws std::runtime_error if it can't listen.
std::shared_ptr<void> serveHttp(const HttpSettings& settings, const Served& served);

} // namespace relay
