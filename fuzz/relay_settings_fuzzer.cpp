// Fuzzes the reading of the relay's configuration.
#include "fuzz/input.h"
#include "relay/settings.h"

#include <algorithm>

using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::text(data, size);
    const relay::LoadedSettings loaded = relay::parseSettings(text);
    const auto lines = std::count(text.begin(), text.end(), '\n') + 1;
    for (const relay::Mistake& each : loaded.mistakes) {
        require(each.line >= 1 && each.line <= static_cast<std::uint32_t>(lines) + 1,
                "a mistake has a line of the file");
        require(!each.sentence.empty() && each.sentence.find('\n') == std::string::npos,
                "a mistake is told in one line");
    }
    if (loaded.mistakes.empty()) {
        const relay::Settings& settings = loaded.settings;
        require(settings.pipe.size >= 4096 && settings.pipe.mode <= 0777, "the pipe is possible");
        require(settings.log.keepSeconds > 0 && settings.log.keepBytes > 0, "something is kept");
        for (const relay::SubscriberSettings& each : settings.subscribers) {
            require(relay::isSubscriberName(each.name), "each subscriber has a name");
            require(each.type != relay::SubscriberType::command || !each.command.words.empty(),
                    "each command has a program");
            require(each.type != relay::SubscriberType::pipe || !each.pipePath.empty(),
                    "each pipe has a path");
            require(!each.filter.kinds.empty() && each.maxBacklog >= 0, "each filter can match");
        }
    }
    return 0;
}
