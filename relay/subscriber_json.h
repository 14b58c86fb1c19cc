// The settings of subscribers that are made over HTTP, as JSON.
#pragma once

#include "relay/settings.h"

#include <string>

namespace relay {

/// Reads what a client asks for: an object with any of "detectors", "paths", "kinds" (lists of
/// texts), "start" (a text or a number) and "max_backlog" (a number). Returns what is wrong with it
/// in one sentence, or an empty text.
std::string readSubscriberJson(const std::string& json, SubscriberSettings& settings);

/// The same object without the start, from which the settings can be read again.
std::string subscriberJson(const SubscriberSettings& settings);

} // namespace relay
