// What is told of the relay, as JSON and for Prometheus: both from one set of figures.
#pragma once

#include "relay/intake.h"
#include "relay/json.h"
#include "relay/record_log.h"
#include "relay/subscribers.h"

#include <cstdint>
#include <string>
#include <vector>

namespace relay {

/// The relay at one moment.
struct Status {
    std::string pipe; // its path
    IntakeFigures intake;
    double stalledSeconds = 0; // 0: it is not stalled
    LogFigures log;
    std::vector<SubscriberFigures> subscribers;
    double since = 0; // seconds since 1970: when it was started
};

Json jsonOf(const Status& status);

/// Prometheus's text format.
std::string metricsText(const Status& status);

/// The same for people: a few lines.
std::string statusText(const Status& status);

} // namespace relay
