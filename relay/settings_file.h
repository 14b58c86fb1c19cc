// The configuration file, in TOML; its keys are documented in skarn-relay.toml(5).
#pragma once

#include "relay/settings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace relay {

/// What is wrong in a configuration file.
struct Mistake {
    std::uint32_t line = 0; // 0: it has none, for the file can't be read
    std::string sentence;
};

struct LoadedSettings {
    Settings settings;
    std::vector<Mistake> mistakes; // in the order of their lines
};

/// Where the configuration is looked for if no other file is named.
constexpr const char* usualSettingsFile = "/etc/skarn/relay.toml";

/// Reads the file. Every mistake is found, not only the first; a key that is not known is one.
LoadedSettings loadSettings(const std::string& path);

/// The same for a text.
LoadedSettings parseSettings(const std::string& text);

/// "FILE:LINE: SENTENCE", a line for each.
std::string mistakesText(const std::string& path, const std::vector<Mistake>& mistakes);

} // namespace relay
