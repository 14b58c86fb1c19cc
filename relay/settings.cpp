// What can be configured, and its defaults.
#include "relay/settings.h"

#include <algorithm>
#include <cstddef>

namespace relay {

std::string_view nameOf(SubscriberType type) {
    switch (type) {
    case SubscriberType::pipe:
        return "pipe";
    case SubscriberType::command:
        return "command";
    case SubscriberType::http:
        break;
    }
    return "http";
}

bool isSubscriberName(const std::string& name) {
    constexpr std::size_t longest = 64;
    constexpr std::string_view allowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    return !name.empty() && name.size() <= longest && name.front() != '.' &&
           std::all_of(name.begin(), name.end(),
                       [&](char each) { return allowed.find(each) != std::string_view::npos; });
}

} // namespace relay
